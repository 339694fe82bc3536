#include "layout/dma_buffer.h"

#include "layout/character_device.h"
#include "layout/format.h"
#include "layout/page.h"

namespace kvsim {

std::string devicePath(const DmaBuffer& buffer) {
    return "/dev/" + buffer.name;
}

void layOutDmaBuffer(const DmaBuffer& buffer, FileTree& tree) {
    const std::string path = "/sys/devices/virtual/u-dma-buf/" + buffer.name;
    tree.addFolder(path);
    tree.addText(path + "/driver_version", "4.5.2\n");
    tree.addText(path + "/phys_addr", format("0x%016llx\n", static_cast<unsigned long long>(buffer.address)));
    tree.addText(path + "/size", format("%llu\n", static_cast<unsigned long long>(buffer.sizeBytes)));
    tree.addText(path + "/dma_coherent", buffer.isCoherent ? "1\n" : "0\n");
    tree.addWritable(path + "/sync_mode", "1\n");
    tree.addLink(path + "/subsystem", kDmaBufferClass);
    tree.addLink(std::string(kDmaBufferClass) + "/" + buffer.name, path);
    addCharacterDevice(path, buffer.name, kDmaBufferMajor, buffer.minor, tree);
    tree.add(devicePath(buffer), {.mode = 0600, .sizeBytes = roundUpToPages(buffer.sizeBytes)});
}

}  // namespace kvsim
