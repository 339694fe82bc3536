#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <map>

#include "pci/kv_pci_internal.h"

namespace kv::pci {

BusOrderKey busOrderKey(const pci_dev& device) {
    return {device.bus, device.dev, device.func};
}

pci_dev* sortIntoBusOrder(pci_dev* head) {
    std::multimap<BusOrderKey, pci_dev*> sorted;
    for (pci_dev* device = head; device != nullptr; device = device->next) {
        // Among equal keys the place matters to index counting: before the first equal one, but never before
        // the head of the list.
        const BusOrderKey key = busOrderKey(*device);
        const bool equalsHead = !sorted.empty() && sorted.begin()->first == key;
        sorted.emplace_hint(equalsHead ? std::next(sorted.begin()) : sorted.lower_bound(key), key, device);
    }

    pci_dev* sortedHead = nullptr;
    pci_dev** link = &sortedHead;
    for (const auto& [key, device] : sorted) {
        *link = device;
        link = &device->next;
    }
    *link = nullptr;
    return sortedHead;
}

SysfsText::SysfsText(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text_.data(), text_.size(), format, arguments);
    va_end(arguments);
}

SysfsText sysfsAddress(const kv_PCIDevice& device) {
    return SysfsText("0000:%02x:%02x.0", device.bus, device.slot);
}

SysfsText sysfsPath(const kv_PCIDevice& device, const char* name) {
    return SysfsText("%s/0000:%02x:%02x.0/%s", os::kPciDevicesDirectory, device.bus, device.slot, name);
}

}  // namespace kv::pci

pci_access* kv_pci_access() {
    static pci_access* const persistentPciAccess = [] {
        kv::os::PciAccessPtr access = kv::os::openPciAccess();
        kv::os::scanBus(*access);
        access->devices = kv::pci::sortIntoBusOrder(access->devices);
        return access.release();  // kept open until the process ends
    }();
    return persistentPciAccess;
}
