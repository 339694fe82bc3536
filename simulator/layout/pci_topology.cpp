#include "layout/pci_topology.h"

#include <algorithm>

extern "C" {
#include <linux/pci_regs.h>
}

namespace kvsim {

namespace {

constexpr std::uint64_t kIoGranularity = 0x1000;
constexpr std::uint64_t kMemoryGranularity = 0x100000;

void widen(std::optional<AddressRange>& window, const Bar& bar, std::uint64_t granularity) {
    const std::uint64_t first = bar.address & ~(granularity - 1);
    const std::uint64_t last = (bar.address + (bar.sizeBytes - 1)) | (granularity - 1);
    window = window ? AddressRange{std::min(window->first, first), std::max(window->last, last)}
                    : AddressRange{first, last};
}

}  // namespace

const PciFunction* PciTopology::bridgeTo(unsigned bus) const {
    const auto bridge = std::find_if(functions_.begin(), functions_.end(),
                                     [bus](const PciFunction& f) { return f.secondaryBus == bus; });
    return bridge == functions_.end() ? nullptr : &*bridge;
}

bool PciTopology::isBehind(const PciFunction& function, const PciFunction& bridge) const {
    const PciFunction* above = bridgeTo(function.bus);
    while (above != nullptr && above != &bridge) {
        above = bridgeTo(above->bus);
    }
    return above == &bridge;
}

std::uint8_t PciTopology::subordinateBus(const PciFunction& bridge) const {
    std::uint8_t highest = *bridge.secondaryBus;
    for (const PciFunction& function : functions_) {
        if (function.secondaryBus && isBehind(function, bridge)) {
            highest = std::max(highest, *function.secondaryBus);
        }
    }
    return highest;
}

BridgeWindows PciTopology::windows(const PciFunction& bridge) const {
    BridgeWindows windows;
    for (const PciFunction& function : functions_) {
        if (!isBehind(function, bridge)) {
            continue;
        }
        for (const Bar& bar : function.bars) {
            if (bar.space == BarSpace::Io) {
                widen(windows.io, bar, kIoGranularity);
            } else if (bar.space == BarSpace::PrefetchableMemory || isWide(bar)) {
                widen(windows.prefetchable, bar, kMemoryGranularity);  // the only window above 4 GiB
            } else {
                widen(windows.memory, bar, kMemoryGranularity);
            }
        }
    }
    return windows;
}

ExpressPort PciTopology::expressPort(const PciFunction& function) const {
    const PciFunction* above = bridgeTo(function.bus);
    if (!function.secondaryBus) {
        return above == nullptr ? ExpressPort::RootComplexEndpoint : ExpressPort::Endpoint;
    }
    if (above == nullptr) {
        return ExpressPort::RootPort;
    }
    return expressPort(*above) == ExpressPort::UpstreamPort ? ExpressPort::DownstreamPort
                                                            : ExpressPort::UpstreamPort;
}

bool PciTopology::isMultiFunction(const PciFunction& function) const {
    return std::count_if(functions_.begin(), functions_.end(), [&function](const PciFunction& other) {
               return other.bus == function.bus && other.slot == function.slot;
           }) > 1;
}

std::uint32_t barFlags(const Bar& bar) {
    if (bar.space == BarSpace::Io) {
        return PCI_BASE_ADDRESS_SPACE_IO;
    }
    const std::uint32_t width = isWide(bar) ? PCI_BASE_ADDRESS_MEM_TYPE_64 : PCI_BASE_ADDRESS_MEM_TYPE_32;
    return width | (bar.space == BarSpace::PrefetchableMemory ? PCI_BASE_ADDRESS_MEM_PREFETCH : 0);
}

}  // namespace kvsim
