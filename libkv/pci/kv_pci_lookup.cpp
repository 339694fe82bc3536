#include <kv/diagnostics.h>

#include "diagnostics/kv_error_text.h"
#include "os/cancellation.h"
#include "pci/kv_pci_internal.h"
#include "runtime/kv_root.h"

namespace {

using kv::setErrorText;
using kv::pci::kFound;
using kv::pci::kNotFound;
using kv::pci::orOnFailure;

constexpr int kFillAll = PCI_FILL_IDENT | PCI_FILL_BASES | PCI_FILL_CLASS | PCI_FILL_SIZES;
constexpr u32 kBarFlagBits = 0xF;

struct Identity {
    uint16_t vendor;
    uint16_t device;
    uint16_t subVendor;
    uint16_t subDevice;
};

bool subsystemMatches(pci_dev& device, const Identity& wanted) {
    const auto matches = [&device](uint16_t id, int offset) {
        return id == KV_PCI_ANY_SUBSYSTEM ||
               (kv::os::openConfig(device, O_RDONLY) && pci_read_word(&device, offset) == id);
    };
    return matches(wanted.subVendor, PCI_SUBSYSTEM_VENDOR_ID) && matches(wanted.subDevice, PCI_SUBSYSTEM_ID);
}

void enableMemoryAndBusMastering(pci_dev& device) {
    const kv_beRootObj root;
    if (!kv::os::openConfig(device, O_RDWR)) {
        return;
    }
    if (const auto command = kv::os::readRegister(device, PCI_COMMAND, sizeof(u16))) {
        pci_write_word(&device, PCI_COMMAND,
                       static_cast<u16>(*command | PCI_COMMAND_MEMORY | PCI_COMMAND_MASTER));
    }
}

void replaceCommandByte(pci_dev& device) {
    if (kv::os::openConfig(device, O_RDWR)) {
        pci_write_byte(&device, PCI_COMMAND, PCI_COMMAND_MEMORY | PCI_COMMAND_MASTER);
    }
}

/** Whether a device has the wanted vendor and device id. One that vanished after the scan has none. */
bool isBoard(pci_dev& device, const Identity& wanted) {
    try {
        kv::os::fillInfo(device, PCI_FILL_IDENT);
    } catch (const kv::os::PciError&) {
        if (kv::os::hasVanished(device)) {
            return false;
        }
        throw;
    }
    return device.vendor_id == wanted.vendor && device.device_id == wanted.device;
}

void fillRecord(pci_dev& device, uint32_t ordinal, kv_PCIDevice& record) {
    kv::os::fillInfo(device, kFillAll);
    record.dev = &device;
    record.VendorId = device.vendor_id;
    record.DeviceId = device.device_id;
    record.bus = device.bus;
    record.slot = device.dev;
    for (unsigned bar = 0; bar < KV_PCI_BARS; ++bar) {
        record.BaseAddress_raw[bar] = device.base_addr[bar];
        record.BaseAddress[bar] = static_cast<u32>(device.base_addr[bar]) & ~kBarFlagBits;
        record.Length[bar] = static_cast<u32>(device.size[bar]);
    }
    record.pciIdx = ordinal;
}

int findByIndex(const Identity& wanted, int position, kv_PCIDevice& record) {
    int counter = 0;
    for (pci_dev* device = kv_pci_access()->devices; device != nullptr; device = device->next) {
        enableMemoryAndBusMastering(*device);
        if (!isBoard(*device, wanted) || !subsystemMatches(*device, wanted)) {
            continue;
        }
        ++counter;
        if (position > counter) {
            continue;
        }
        try {
            fillRecord(*device, static_cast<uint32_t>(counter), record);
            return kFound;
        } catch (const kv::os::PciError&) {
            if (!kv::os::hasVanished(*device)) {
                throw;
            }
            --counter;  // the board behind it takes its number
        }
    }
    return kNotFound;
}

int findAtSlot(const Identity& wanted, uint16_t bus, uint16_t slot, kv_PCIDevice& record) {
    const kv::os::PciAccessPtr access = kv::os::openPciAccess();
    kv::os::scanBus(*access);
    uint32_t skipped = 0;
    pci_dev* taken = nullptr;
    for (pci_dev* device = access->devices; device != nullptr && taken == nullptr; device = device->next) {
        replaceCommandByte(*device);
        if (!isBoard(*device, wanted)) {
            continue;
        }
        if (device->bus == bus && device->dev == slot && subsystemMatches(*device, wanted)) {
            taken = device;
        } else {
            ++skipped;
        }
    }
    if (taken == nullptr) {
        return kNotFound;
    }
    fillRecord(*taken, skipped,
               record);  // record.dev dies with the access object: callers use the other fields only
    return kFound;
}

}  // namespace

int kvPCI_getDeviceByIdx(uint16_t vendorId, uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId,
                         int moduleId, kv_PCIDevice* pPciInfo) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_debug, "Looking for VID 0x%04x DID 0x%04x at index %d\n", vendorId, deviceId, moduleId);
    return orOnFailure(kNotFound, [&] {
        return findByIndex({vendorId, deviceId, subVendorId, subDeviceId}, moduleId, *pPciInfo);
    });
}

int kvPCI_getDeviceAtSlot(uint16_t vendorId, uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId,
                          uint16_t Bus, uint16_t Slot, kv_PCIDevice* pPciInfo) {
    const kv::os::CancellationHold hold;
    return orOnFailure(kNotFound, [&] {
        return findAtSlot({vendorId, deviceId, subVendorId, subDeviceId}, Bus, Slot, *pPciInfo);
    });
}

int kv_findPciDevice(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId, uint16_t deviceId,
                     uint16_t subVendorId, uint16_t subDeviceId, int ModuleId, int Bus, int Slot) {
    const kv::os::CancellationHold hold;
    if (Slot < 0) {
        kv_printf(kv_debug, "Find PCI device in autosearch mode\n");
        if (kvPCI_getDeviceByIdx(vendorId, deviceId, subVendorId, subDeviceId, ModuleId, pPciInfo) !=
            kFound) {
            setErrorText("%.127s ID%i: Module not found", pDevNameStr, ModuleId);
            return kNotFound;
        }
    } else {
        kv_printf(kv_debug, "Find PCI device in explicit mode\n");
        if (Bus < 0) {
            setErrorText("%.127s ID%i: Invalid PCI bus argument: %i", pDevNameStr, ModuleId, Bus);
            return kNotFound;
        }
        const int result =
            kvPCI_getDeviceAtSlot(vendorId, deviceId, subVendorId, subDeviceId, static_cast<uint16_t>(Bus),
                                  static_cast<uint16_t>(Slot), pPciInfo);
        if (result != kFound) {
            setErrorText("%.127s ID%i: Not found at bus %i, slot %i (rc:%i)", pDevNameStr, ModuleId, Bus,
                         Slot, result);
            return kNotFound;
        }
    }
    kv_printf(kv_debug, "%.127s ID%i: Found at bus %i, slot %i\n", pDevNameStr, ModuleId, pPciInfo->bus,
              pPciInfo->slot);
    return kFound;
}

int kv_detectPciDevice(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId, uint16_t deviceId,
                       uint16_t subVendorId, uint16_t subDeviceId, int ModuleId) {
    if (kvPCI_getDeviceByIdx(vendorId, deviceId, subVendorId, subDeviceId, ModuleId, pPciInfo) != kFound) {
        setErrorText("%.127s pciIDxPlusOne%i: Module not found", pDevNameStr, ModuleId);
        return kNotFound;
    }
    return kFound;
}

int kv_detectPciDeviceAtSlot(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId,
                             uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId, int Bus,
                             int Slot) {
    const int result =
        kvPCI_getDeviceAtSlot(vendorId, deviceId, subVendorId, subDeviceId, static_cast<uint16_t>(Bus),
                              static_cast<uint16_t>(Slot), pPciInfo);
    if (result != kFound) {
        setErrorText("%.127s not found at bus %i, slot %i (rc:%i)", pDevNameStr, Bus, Slot, result);
        return kNotFound;
    }
    return kFound;
}
