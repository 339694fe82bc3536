#include "layout/uio_layout.h"

#include "layout/character_device.h"
#include "layout/format.h"

namespace kvsim {

std::string uioDeviceFile(unsigned number) {
    return format("/dev/uio%u", number);
}

std::string uioFolder(unsigned number) {
    return format("uio/uio%u", number);
}

void layOutUioDevice(unsigned number, const std::string& name, const std::string& version,
                     const std::string& parentPath, FileTree& tree) {
    const std::string path = parentPath + "/" + uioFolder(number);
    tree.addText(path + "/name", name + "\n");
    tree.addText(path + "/version", version + "\n");
    tree.addLink(path + "/subsystem", kUioClass);
    tree.addLink(path + "/device", parentPath);
    tree.addLink(format("%s/uio%u", kUioClass, number), path);
    addCharacterDevice(path, format("uio%u", number), kUioMajor, number, tree);
}

}  // namespace kvsim
