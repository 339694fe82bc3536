#include <array>
#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "os/cancellation.h"
#include "pci/kv_pci_internal.h"

namespace {

using kv::os::PciDevicePtr;

constexpr unsigned kBuses = 256;
constexpr unsigned kFunctionsPerBus = 256;
constexpr unsigned kFunctionsPerSlot = 8;
constexpr int kHeaderSize = 64;
constexpr std::size_t kInterfaceTypeSize = 13;

constexpr u32 kMultiFunctionBit = 0x80;

struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/** The memory of a tree, from malloc as callers get it. A tree that is not finished goes with this object. */
class TreeMemory {
 public:
    template <typename Record>
    Record* allocate(std::size_t count) {
        auto& owner = allocated_.emplace_back();
        owner.reset(std::malloc(count * sizeof(Record)));
        if (owner == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<Record*>(owner.get());
    }

    /** Leaves all of it to the caller. */
    void release() noexcept {
        for (auto& owner : allocated_) {
            (void)owner.release();
        }
    }

 private:
    std::vector<std::unique_ptr<void, FreeMemory>> allocated_;
};

/** The function addresses of domain 0 at which a probe may find something. */
class Candidates {
 public:
    /** Every address, or where libpci reads sysfs those that sysfs lists: one directory read saves all other
     * probes. */
    explicit Candidates(const pci_access& access) {
        if (!kv::os::readsSysfs(access)) {
            functions_.set();
            return;
        }
        for (const auto& [domain, bus, slot, function] : kv::os::listedFunctions()) {
            if (domain == 0 && bus < kBuses && slot < kFunctionsPerBus / kFunctionsPerSlot &&
                function < kFunctionsPerSlot) {
                functions_.set(index(bus, slot, function));
            }
        }
    }

    [[nodiscard]] bool contains(unsigned bus, unsigned slot, unsigned function) const {
        return functions_.test(index(bus, slot, function));
    }

 private:
    static std::size_t index(unsigned bus, unsigned slot, unsigned function) {
        return bus * kFunctionsPerBus + slot * kFunctionsPerSlot + function;
    }

    std::bitset<kBuses * kFunctionsPerBus> functions_;
};

char* interfaceText(pci_dev& device, TreeMemory& memory) {
    char* text = memory.allocate<char>(kInterfaceTypeSize);
    const pci_cap* express = pci_find_cap(&device, PCI_CAP_ID_EXP, PCI_CAP_NORMAL);
    if (express == nullptr) {
        std::strcpy(text, "PCI");
        return text;
    }
    // The first number is the version of the capability structure, not the link generation; readers know it
    // so.
    const unsigned version = pci_read_word(&device, static_cast<int>(express->addr) + PCI_EXP_FLAGS) & 0xFU;
    const unsigned width =
        (pci_read_long(&device, static_cast<int>(express->addr) + PCI_EXP_LNKCAP) >> 4) & 0x3FU;
    std::snprintf(text, kInterfaceTypeSize, "PCIe%u x%u", version, width);
    return text;
}

kv_topo_node describe(pci_dev& device, kv_topo_node* parent, TreeMemory& memory) {
    const u32 ids = pci_read_long(&device, PCI_VENDOR_ID);
    const u32 subsystemIds = pci_read_long(&device, PCI_SUBSYSTEM_VENDOR_ID);
    const u32 headerType = (pci_read_long(&device, PCI_CACHE_LINE_SIZE) >> 16) & 0xFFU;
    return {
        .bus = device.bus,
        .slot = device.dev,
        .func = device.func,
        .VID = ids & 0xFFFFU,
        .DID = ids >> 16,
        .SubVID = subsystemIds & 0xFFFFU,
        .SubDID = subsystemIds >> 16,
        .classcode = pci_read_long(&device, PCI_CLASS_REVISION) >> 8,
        .interfaceType = interfaceText(device, memory),
        .MF = (headerType & kMultiFunctionBit) != 0,
        .headerType = headerType & ~kMultiFunctionBit,
        .customData = 0,
        .parent = parent,
    };
}

/** One walk over the buses behind a start. */
class TopologyScan {
 public:
    explicit TopologyScan(pci_access& access) : access_(access), candidates_(access) {}

    uint32_t scanFrom(unsigned bus, kv_topo_node** result) {
        if (bus >= kBuses) {
            *result = nullptr;
            return 0;
        }
        onBranch_.set(bus);
        kv_topo_node* nodes = nullptr;
        const uint32_t count = scanBusesForTreeElements(bus, bus, nullptr, &nodes);
        memory_.release();
        *result = nodes;
        return count;
    }

 private:
    uint32_t scanBusesForTreeElements(unsigned first, unsigned last, kv_topo_node* parent,
                                      kv_topo_node** result) {
        std::vector<kv_topo_node> found;
        for (unsigned bus = first; bus <= last; ++bus) {
            collectFunctions(bus, parent, found);
        }
        *result = nullptr;
        if (found.empty()) {
            return 0;
        }
        *result = memory_.allocate<kv_topo_node>(found.size());
        std::memcpy(*result, found.data(), found.size() * sizeof(kv_topo_node));

        const auto count = static_cast<uint32_t>(found.size());
        for (kv_topo_node* node = *result; node != *result + count; ++node) {
            if (node->headerType == PCI_HEADER_TYPE_BRIDGE) {
                node->customData = reinterpret_cast<uintptr_t>(scanBehindBridge(*node));
            }
        }
        return count;
    }

    void collectFunctions(unsigned bus, kv_topo_node* parent, std::vector<kv_topo_node>& found) {
        for (unsigned slot = 0; slot < kFunctionsPerBus / kFunctionsPerSlot; ++slot) {
            for (unsigned function = 0; function < kFunctionsPerSlot; ++function) {
                if (!candidates_.contains(bus, slot, function)) {
                    continue;
                }
                const PciDevicePtr device = kv::os::getPciDevice(access_, bus, slot, function);
                std::array<u8, kHeaderSize> header;
                if (pci_read_block(device.get(), 0, header.data(), kHeaderSize) != 0) {
                    pci_setup_cache(device.get(), header.data(), kHeaderSize);
                }
                if (!kv::os::isPresent(*device)) {
                    continue;
                }
                found.push_back(describe(*device, parent, memory_));
                if (function == 0 && !found.back().MF) {
                    break;
                }
            }
        }
    }

    kv_topo_bridge* scanBehindBridge(kv_topo_node& node) {
        const PciDevicePtr device = kv::os::getPciDevice(access_, node.bus, node.slot, node.func);
        const u32 buses = pci_read_long(device.get(), PCI_PRIMARY_BUS);
        auto* bridge = memory_.allocate<kv_topo_bridge>(1);
        *bridge = {.prim = buses & 0xFFU,
                   .sec = (buses >> 8) & 0xFFU,
                   .sub = (buses >> 16) & 0xFFU,
                   .nChildren = 0,
                   .children = nullptr};

        // A bridge that firmware left unconfigured or wrong leads to bus 0 or back to a bus of the current
        // branch.
        if (bridge->sec != 0 && !onBranch_.test(bridge->sec)) {
            onBranch_.set(bridge->sec);
            bridge->nChildren = scanBusesForTreeElements(bridge->sec, bridge->sec, &node, &bridge->children);
            onBranch_.reset(bridge->sec);
        }
        return bridge;
    }

    pci_access& access_;
    Candidates candidates_;
    TreeMemory memory_;
    std::bitset<kBuses> onBranch_;
};

const char* bridgeText(uint32_t headerType) {
    switch (headerType) {
        case PCI_HEADER_TYPE_BRIDGE:
            return "(PCI-to-PCI bridge)";
        case PCI_HEADER_TYPE_CARDBUS:
            return "(Cardbus bridge)";
        default:
            return "";
    }
}

void printBranch(unsigned depth, const kv_topo_node* nodes, uint32_t n) {
    if (nodes == nullptr) {
        return;
    }
    for (const kv_topo_node* node = nodes; node != nodes + n; ++node) {
        for (unsigned tab = 0; tab < depth; ++tab) {
            std::putchar('\t');
        }
        std::printf("%02d,%02d,%02d\t-\tVID: %04x, DID: %04x, %s\t\t%s\t%s\n", node->bus, node->slot,
                    node->func, node->VID, node->DID, node->interfaceType, node->MF ? "(MF)" : "",
                    bridgeText(node->headerType));
        if (node->headerType == PCI_HEADER_TYPE_BRIDGE) {
            const auto* bridge = reinterpret_cast<const kv_topo_bridge*>(node->customData);
            printBranch(depth + 1, bridge->children, bridge->nChildren);
        }
    }
}

}  // namespace

int32_t kv_getPciTopologyAtBus(kv_topo_node** topo, uint32_t bus) {
    const kv::os::CancellationHold hold;
    *topo = nullptr;
    return kv::pci::orOnFailure(
        -1, [&] { return static_cast<int32_t>(TopologyScan(*kv_pci_access()).scanFrom(bus, topo)); });
}

int32_t kv_getPciTopology(kv_topo_node** topo) {
    return kv_getPciTopologyAtBus(topo, 0);
}

void kv_printPciTopology(kv_topo_node* topo, uint32_t n) {
    const kv::os::CancellationHold hold;
    printBranch(0, topo, n);
}
