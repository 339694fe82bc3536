#include "layout/soc_layout.h"

#include <algorithm>

#include "layout/dma_buffer.h"
#include "layout/format.h"
#include "layout/machine_layout.h"
#include "layout/page.h"
#include "layout/uio_layout.h"

namespace kvsim {

namespace {

constexpr const char* kFabricDriver = "uio_pdrv_genirq";

constexpr unsigned kCommandMode = 0755;

// On the machine every program has all rights.
constexpr const char* kSudo = "#!/bin/sh\nexec \"$@\"\n";

constexpr const char* kBitstreamLoader =
    R"(#!/bin/sh
if [ $# -ne 1 ] || ! [ -f "$1" ] || ! size=$(wc -c <"$1"); then
    echo "kv_load-bitstream: cannot read '$1'" >&2
    exit 1
fi
printf '%s %d\n' "$1" "$size" >>/run/kvsim/bitstreams
)";

constexpr const char* kSystemctl = "#!/bin/sh\nprintf '%s\\n' \"$*\" >>/run/kvsim/systemctl\n";

void addMap(const std::string& path, const UioMap& map, FileTree& tree) {
    tree.addText(path + "/name", map.name + "\n");
    tree.addText(path + "/addr", format("0x%016llx\n", static_cast<unsigned long long>(map.address)));
    tree.addText(path + "/size", format("0x%016llx\n", static_cast<unsigned long long>(map.sizeBytes)));
    tree.addText(path + "/offset", format("0x%llx\n", static_cast<unsigned long long>(map.offset)));
}

/** The device file: the memory of all maps, each at its offset. */
File registersOf(const AxiDevice& device) {
    File file{.mode = 0600};
    for (const UioMap& map : device.maps) {
        file.sizeBytes = std::max(file.sizeBytes, roundUpToPages(map.offset + map.sizeBytes));
        for (const auto& [offset, value] : map.registers) {
            file.words.push_back({map.offset + offset, value});
        }
    }
    return file;
}

void addAxiDevice(const AxiDevice& device, unsigned number, FileTree& tree) {
    const std::uint64_t address = device.maps.empty() ? 0 : device.maps.front().address;
    const std::string name = format("%llx.%s", static_cast<unsigned long long>(address), device.name.c_str());
    const std::string parent = "/sys/devices/platform/axi/" + name;
    const std::string driver = std::string("/sys/bus/platform/drivers/") + kFabricDriver;
    tree.addWritable(parent + "/uevent",
                     format("DRIVER=%s\nMODALIAS=platform:%s\n", kFabricDriver, name.c_str()));
    tree.addLink(parent + "/subsystem", "/sys/bus/platform");
    tree.addLink(parent + "/driver", driver);
    tree.addLink(driver + "/" + name, parent);
    tree.addLink("/sys/bus/platform/devices/" + name, parent);

    const std::string path = parent + "/" + uioFolder(number);
    layOutUioDevice(number, device.name, "devicetree", parent, tree);
    tree.addText(path + "/event", "0\n");
    for (std::size_t index = 0; index < device.maps.size(); ++index) {
        addMap(path + format("/maps/map%zu", index), device.maps[index], tree);
    }
    tree.add(uioDeviceFile(number), registersOf(device));
}

}  // namespace

std::string interruptFolder(unsigned irq) {
    return format("/proc/irq/%u", irq);
}

std::map<unsigned, std::set<std::string>> interruptHandlers(const MachineDescription& description) {
    std::map<unsigned, std::set<std::string>> handlers;
    for (const AxiDevice& device : description.axiDevices) {
        handlers[device.irq].insert(device.name);
    }
    for (const PciFunction& function : description.pciFunctions) {
        handlers[function.irq].insert(function.driver);
    }
    handlers.erase(0);  // no interrupt
    for (auto& [irq, names] : handlers) {
        names.erase("");
    }
    return handlers;
}

void layOutSoc(const MachineDescription& description, FileTree& tree) {
    tree.addFolder(kUioClass);
    unsigned number = 0;
    for (const AxiDevice& device : description.axiDevices) {
        addAxiDevice(device, number++, tree);
    }
    for (const auto& [irq, names] : interruptHandlers(description)) {
        const std::string folder = interruptFolder(irq);
        tree.addText(folder + "/node", "0\n");
        tree.addText(folder + "/spurious", "count 0\nunhandled 0\nlast_unhandled 0 ms\n");
        for (const std::string& name : names) {
            tree.addFolder(folder + "/" + name);
        }
    }
    if (description.dmaMemory || description.cachedBuffer) {
        tree.addFolder(kDmaBufferClass);
    }
    if (const auto& memory = description.cachedBuffer) {
        layOutDmaBuffer(cachedBufferOf(*memory), tree);
    }
    tree.add(std::string(kCommandFolder) + "/sudo", {.content = kSudo, .mode = kCommandMode});
    tree.add(std::string(kCommandFolder) + "/kv_load-bitstream",
             {.content = kBitstreamLoader, .mode = kCommandMode});
    tree.add(std::string(kCommandFolder) + "/systemctl", {.content = kSystemctl, .mode = kCommandMode});
}

}  // namespace kvsim
