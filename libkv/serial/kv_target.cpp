#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <kv/serial.h>

#include "os/cancellation.h"
#include "os/sd_device.h"
#include "serial/kv_target_order.h"

namespace {

using kv::os::SdDevicePtr;
using kv::os::SdEnumeratorPtr;

constexpr const char* kTtySubsystem = "tty";

enum PciLookup {
    kFound = 0,
    kNoBoard = -1,
    kNoEnumerator = -2,
    kNoPort = -3,
    kNoNode = -4,
    kNameTooLong = -5,
};

SdEnumeratorPtr enumerateTtys() {
    SdEnumeratorPtr ttys = kv::os::newEnumerator();
    if (ttys && sd_device_enumerator_add_match_subsystem(ttys.get(), kTtySubsystem, 1) < 0) {
        ttys.reset();
    }
    return ttys;
}

bool copyName(const char* name, char* outStr, size_t maxLength) {
    if (std::strlen(name) >= maxLength) {
        return false;
    }
    std::strncpy(outStr, name, maxLength);
    return true;
}

SdDevicePtr findBoard(const kv_PCIDevice& board) {
    std::array<char, 32> name;
    (void)std::snprintf(name.data(), name.size(), "0000:%02x:%02x.0", board.bus, board.slot);
    return kv::os::findDevice("pci", name.data());
}

/** Adds the device nodes of all ports of a board. @return kFound, or why that is not possible */
PciLookup collectNodes(sd_device& board, std::vector<std::string>& nodes) {
    const SdEnumeratorPtr ttys = enumerateTtys();
    if (!ttys || sd_device_enumerator_add_match_parent(ttys.get(), &board) < 0) {
        return kNoEnumerator;
    }
    for (sd_device* tty = sd_device_enumerator_get_device_first(ttys.get()); tty != nullptr;
         tty = sd_device_enumerator_get_device_next(ttys.get())) {
        const char* const node = kv::os::nodeOf(*tty);
        if (node == nullptr) {
            return kNoNode;
        }
        nodes.emplace_back(node);
    }
    return nodes.empty() ? kNoPort : kFound;
}

}  // namespace

int kv_findSerialDeviceByPort(uint32_t addr, char* outStr, size_t maxLength) {
    const kv::os::CancellationHold hold;
    const SdEnumeratorPtr ttys = enumerateTtys();
    std::array<char, 20> address;
    (void)std::snprintf(address.data(), address.size(), "0x%X", addr);
    if (!ttys || sd_device_enumerator_add_match_sysattr(ttys.get(), "iomem_base", address.data(), 1) < 0) {
        return -1;
    }
    sd_device* const tty = sd_device_enumerator_get_device_first(ttys.get());
    const char* const node = tty == nullptr ? nullptr : kv::os::nodeOf(*tty);
    return node != nullptr && copyName(node, outStr, maxLength) ? 0 : -1;
}

int kv_findSerialDeviceByPci(kv_PCIDevice* pciInfo, int port, char* outStr, size_t maxLength) try {
    const kv::os::CancellationHold hold;
    const SdDevicePtr board = findBoard(*pciInfo);
    if (!board) {
        return kNoBoard;
    }
    std::vector<std::string> nodes;
    if (const PciLookup result = collectNodes(*board, nodes); result != kFound) {
        return result;
    }
    std::ranges::sort(nodes, kv::serial::doNaturalCompare);
    if (port < 0 || static_cast<std::size_t>(port) >= nodes.size()) {
        return kNoPort;
    }
    const std::string& node = nodes[static_cast<std::size_t>(port)];
    return copyName(node.c_str(), outStr, maxLength) ? kFound : kNameTooLong;
} catch (const std::bad_alloc&) {
    return kNoEnumerator;
}
