#include "network/kv_ethernet_devices.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <set>
#include <tuple>

#include <kv/diagnostics.h>

#include "os/directory.h"
#include "os/sd_device.h"

namespace {

using kv::os::SdEnumeratorPtr;
using kv::utils::formatString;

constexpr uint32_t kEthernetClassCode = 0x020000;
constexpr uint32_t kBridgeHeaderType = 1;
constexpr const char* kNetSubsystem = "net";
constexpr const char* kInterfacesFolder = "/sys/class/net";
constexpr const char* kPlatformEthernet = ".ethernet";

/**
 * The name of an interface if it is one of the chip's own, else an empty text. Null, with a log record, where
 * the device could not be read.
 */
const char* platformInterfaceName(sd_device* device) {
    const char* text = nullptr;
    if (const int result = sd_device_get_devpath(device, &text); result < 0) {
        kv_printf(kv_error, "Error getting device devname: %s\n", std::strerror(-result));
        return nullptr;
    }
    if (std::strstr(text, kPlatformEthernet) == nullptr) {
        return "";
    }
    sd_device* parent = nullptr;  // belongs to the device
    if (const int result = sd_device_get_parent(device, &parent); result < 0) {
        kv_printf(kv_error, "Error getting device parent: %s\n", std::strerror(-result));
        return nullptr;
    }
    if (const int result = sd_device_get_subsystem(parent, &text); result < 0) {
        kv_printf(kv_error, "Error getting device parent subsystem: %s\n", std::strerror(-result));
        return nullptr;
    }
    if (std::strcmp(text, "platform") != 0) {
        return "";
    }
    if (const int result = sd_device_get_sysname(device, &text); result < 0) {
        kv_printf(kv_error, "Error getting device sysname: %s\n", std::strerror(-result));
        return nullptr;
    }
    return text;
}

/** Names of network interfaces. */
using Interfaces = std::set<std::string>;

/**
 * Whether a list has every interface of the machine, which libsystemd does not tell: it reports an
 * enumeration that failed as one that found nothing. Logs what is not so.
 */
bool isComplete(const Interfaces& found) {
    const kv::os::DirectoryPtr folder = kv::os::openDirectory(kInterfacesFolder);
    if (!folder && errno == ENOENT) {
        return true;  // a kernel without network
    }
    errno = folder ? 0 : errno;
    while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
        const bool isInterface = entry->d_name[0] != '.' && entry->d_type != DT_REG;
        if (isInterface && !found.contains(entry->d_name)) {
            kv_printf(kv_error, "Error enumerating network devices: %s is missing\n", entry->d_name);
            return false;
        }
        errno = 0;
    }
    if (errno != 0) {
        kv_printf(kv_error, "Error reading %s: %s\n", kInterfacesFolder, std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<const EthernetDevices> getEthernetDevices() {
    auto devices = std::make_unique<EthernetDevices>();
    const kv::OwnedTopology& topology = devices->topology;
    if (topology.count() < 0) {
        kv_printf(kv_error, "PCI topology detection failure!\n");
        return nullptr;
    }
    filterEthernetDevices(0, topology.nodes(), static_cast<uint32_t>(topology.count()), devices->nodes);
    std::ranges::sort(devices->nodes, {},
                      [](const _kv_topo_node& node) { return std::tuple(node.bus, node.slot, node.func); });
    return devices;
}

void filterEthernetDevices(int level, _kv_topo_node* branch, uint32_t nElements,
                           std::vector<_kv_topo_node>& deviceListOut) {
    for (_kv_topo_node* node = branch; node != branch + nElements; ++node) {
        if (node->classcode == kEthernetClassCode) {
            deviceListOut.push_back(*node);
        }
        if (node->headerType == kBridgeHeaderType) {
            const auto* bridge = reinterpret_cast<const _kv_topo_bridge*>(node->customData);
            filterEthernetDevices(level + 1, bridge->children, bridge->nChildren, deviceListOut);
        }
    }
}

std::string pciInterfaceName(const _kv_topo_node& node) {
    const std::string pciName = formatString("0000:%02x:%02x.%x", node.bus, node.slot, node.func);
    const kv::os::SdDevicePtr function = kv::os::findDevice("pci", pciName.c_str());
    const SdEnumeratorPtr enumerator = kv::os::newEnumerator();
    if (!function || !enumerator ||
        sd_device_enumerator_add_match_subsystem(enumerator.get(), kNetSubsystem, 1) < 0 ||
        sd_device_enumerator_add_match_parent(enumerator.get(), function.get()) < 0) {
        return "";
    }
    sd_device* interface = sd_device_enumerator_get_device_first(enumerator.get());
    const char* name = nullptr;
    if (interface == nullptr || sd_device_get_sysname(interface, &name) < 0) {
        return "";
    }
    return name;
}

int appendAxiEthInterfaces(std::string& ethStr) {
    sd_device_enumerator* created = nullptr;
    int result = sd_device_enumerator_new(&created);
    const SdEnumeratorPtr enumerator(created);
    if (result < 0) {
        kv_printf(kv_error, "Error initializing device enumerator: %s\n", std::strerror(-result));
        return -1;
    }
    result = sd_device_enumerator_add_match_subsystem(enumerator.get(), kNetSubsystem, 1);
    if (result < 0) {
        kv_printf(kv_error, "Error trying to set the enumerator filter to net: %s\n", std::strerror(-result));
        return -1;
    }
    Interfaces found;
    for (sd_device* device = sd_device_enumerator_get_device_first(enumerator.get()); device != nullptr;
         device = sd_device_enumerator_get_device_next(enumerator.get())) {
        if (const char* name = nullptr; sd_device_get_sysname(device, &name) >= 0) {
            found.insert(name);
        }
        const char* name = platformInterfaceName(device);
        if (name == nullptr) {
            kv_printf(kv_error, "Failed to find interface name\n");
            return -1;
        }
        if (name[0] != '\0') {
            ethStr += formatString("%s:-1:Onboard;", name);
        }
    }
    if (!isComplete(found)) {
        kv_printf(kv_error, "Failed to find interface name\n");
        return -1;
    }
    return 0;
}
