#include <exception>
#include <optional>

#include <kv/diagnostics.h>
#include <kv/network.h>
#include <kv/pci.h>

#include "network/kv_ethernet_devices.h"
#include "os/cancellation.h"

namespace {

constexpr const char* kEthercatDriver = "atemsys_pci";

/** The place of a controller of the list. The caller knows it as a single-function device. */
std::optional<kv_PCIDevice> controllerAt(const EthernetDevices& devices, unsigned int absIndex) {
    if (absIndex >= devices.nodes.size()) {
        return std::nullopt;
    }
    kv_PCIDevice controller{};
    controller.bus = devices.nodes[absIndex].bus;
    controller.slot = devices.nodes[absIndex].slot;
    return controller;
}

}  // namespace

int kv_configureEthercat(unsigned int absIndex) try {
    const kv::os::CancellationHold hold;
    const auto devices = getEthernetDevices();
    if (!devices) {
        return -1;
    }
    auto controller = controllerAt(*devices, absIndex);
    if (!controller) {
        kv_printf(kv_error, "kv_configureEthercat: Requested network device index is out of range\n");
        return -1;
    }
    return kv_pci_bindDriver(&*controller, kEthercatDriver);
} catch (const std::exception&) {
    return -1;
}

int kv_teardownEthercat(unsigned int absIndex) try {
    const kv::os::CancellationHold hold;
    const auto devices = getEthernetDevices();
    if (!devices) {
        return -1;
    }
    auto controller = controllerAt(*devices, absIndex);
    if (!controller) {
        kv_printf(kv_error, "kv_teardownEthercat: Requested network device index is out of range\n");
        return -1;
    }
    if (kv_pci_unbindDriver(&*controller) != 0) {
        kv_printf(kv_error, "kv_teardownEthercat: Failed to unbind network device driver\n");
        return -1;
    }
    return kv_pci_probeDriver(&*controller);
} catch (const std::exception&) {
    return -1;
}
