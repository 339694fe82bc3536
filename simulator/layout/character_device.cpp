#include "layout/character_device.h"

#include "layout/format.h"

namespace kvsim {

void addCharacterDevice(const std::string& path, const std::string& name, unsigned major, unsigned minor,
                        FileTree& tree) {
    tree.addText(path + "/dev", format("%u:%u\n", major, minor));
    tree.addWritable(path + "/uevent",
                     format("MAJOR=%u\nMINOR=%u\nDEVNAME=%s\n", major, minor, name.c_str()));
    tree.addLink(format("/sys/dev/char/%u:%u", major, minor), path);
    tree.addText(format("/run/udev/data/c%u:%u", major, minor), kReadyEntry);
}

}  // namespace kvsim
