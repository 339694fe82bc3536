#include <algorithm>
#include <tuple>
#include <vector>

#include <kv/diagnostics.h>

#include "diagnostics/kv_error_text.h"
#include "os/cancellation.h"
#include "pci/kv_pci_internal.h"

namespace {

using kv::setErrorText;
using kv::pci::kFound;
using kv::pci::kNotFound;

/** The parallel identity arrays of a board's variants. */
struct Variants {
    size_t count;
    const uint16_t* vendor;
    const uint16_t* device;
    const uint16_t* subVendor;
    const uint16_t* subDevice;
};

/** All boards of all variants in (bus, slot) order. */
std::vector<kv_PCIDevice> collectBoards(const Variants& variants) {
    std::vector<kv_PCIDevice> boards;
    for (size_t variant = 0; variant < variants.count; ++variant) {
        // The index has eight bits; where they wrap, after 255 boards of one identity, the search ends.
        for (uint8_t index = 1; index != 0; ++index) {
            kv_PCIDevice board{};
            if (kvPCI_getDeviceByIdx(variants.vendor[variant], variants.device[variant],
                                     variants.subVendor[variant], variants.subDevice[variant], index,
                                     &board) != kFound) {
                break;
            }
            boards.push_back(board);
        }
    }
    std::sort(boards.begin(), boards.end(), [](const kv_PCIDevice& left, const kv_PCIDevice& right) {
        return std::tie(left.bus, left.slot) < std::tie(right.bus, right.slot);
    });
    return boards;
}

int findVariantAtSlot(kv_PCIDevice& record, const char* name, const Variants& variants, int position, int bus,
                      int slot) {
    if (bus < 0) {
        kv_printf(kv_debug, "%.127s PciAutosearchPos%i: Invalid PCI bus argument: %i\n", name, position, bus);
        setErrorText("%.127s PciAutosearchPos%i: Invalid PCI bus argument: %i", name, position, bus);
        return kNotFound;
    }
    int result = -1;
    for (size_t variant = 0; variant < variants.count && result != kFound; ++variant) {
        result = kvPCI_getDeviceAtSlot(variants.vendor[variant], variants.device[variant],
                                       variants.subVendor[variant], variants.subDevice[variant],
                                       static_cast<uint16_t>(bus), static_cast<uint16_t>(slot), &record);
    }
    if (result != kFound) {
        setErrorText("%.127s PciAutosearchPos%i: Not found at bus %i, slot %i (rc:%i)", name, position, bus,
                     slot, result);
        return kNotFound;
    }
    return kFound;
}

int findVariantAtPosition(kv_PCIDevice& record, const char* name, const Variants& variants, int position) {
    const auto boards =
        kv::pci::orOnFailure(std::vector<kv_PCIDevice>(), [&] { return collectBoards(variants); });
    if (position < 1 || boards.size() < static_cast<size_t>(position)) {
        kv_printf(kv_debug, "%.127s PciAutosearchPos%i: Module not found\n", name, position);
        setErrorText("%.127s PciAutosearchPos%i: Module not found", name, position);
        return kNotFound;
    }
    record = boards[static_cast<size_t>(position) - 1];
    return kFound;
}

}  // namespace

int kv_findPciDeviceMultiIDs(kv_PCIDevice* pPciInfo, const char* pDevNameStr, size_t nDevs,
                             uint16_t* pVendorId, uint16_t* pDeviceId, uint16_t* pSubVendorId,
                             uint16_t* pSubDeviceId, int PciAutosearchPos, int Bus, int Slot) {
    const kv::os::CancellationHold hold;
    const Variants variants{nDevs, pVendorId, pDeviceId, pSubVendorId, pSubDeviceId};
    kv_printf(kv_debug, "Bus: %i, Slot: %i\n", Bus, Slot);

    int result = kNotFound;
    if (Slot >= 0) {
        kv_printf(kv_debug, "Explicit mode\n");
        result = findVariantAtSlot(*pPciInfo, pDevNameStr, variants, PciAutosearchPos, Bus, Slot);
    } else {
        kv_printf(kv_debug, "Autosearch mode\n");
        result = findVariantAtPosition(*pPciInfo, pDevNameStr, variants, PciAutosearchPos);
    }
    if (result == kFound) {
        kv_printf(kv_debug, "%.127s PciAutosearchPos%i: Found at bus %i, slot %i\n", pDevNameStr,
                  PciAutosearchPos, pPciInfo->bus, pPciInfo->slot);
    }
    return result;
}
