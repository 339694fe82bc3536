#include <algorithm>
#include <cstring>
#include <exception>
#include <fstream>
#include <ifaddrs.h>
#include <memory>
#include <netpacket/packet.h>
#include <string>
#include <sys/socket.h>

#include <kv/diagnostics.h>
#include <kv/network.h>

#include "network/kv_host_link.h"
#include "os/cancellation.h"

namespace {

struct IfaddrsFree {
    void operator()(ifaddrs* list) const noexcept { ::freeifaddrs(list); }
};
using IfaddrsPtr = std::unique_ptr<ifaddrs, IfaddrsFree>;

/** The link-layer address of an entry; null where its address is of another kind. */
const sockaddr_ll* linkAddressOf(const ifaddrs& entry) {
    return entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_PACKET
               ? reinterpret_cast<const sockaddr_ll*>(entry.ifa_addr)
               : nullptr;
}

}  // namespace

std::string hostLinkInterface(std::istream& translation) {
    for (std::string entry; std::getline(translation, entry, ';');) {
        const std::size_t colon = entry.find(':');
        if (colon != std::string::npos && entry.find("Hostlink") != std::string::npos) {
            return entry.substr(0, colon);
        }
    }
    return "";
}

std::string kv_getDefaultHostLinkInterface() {
    std::ifstream file(kEthTranslateFile);
    return file ? hostLinkInterface(file) : "";
}

int kv_target_getHostLinkMac(unsigned char* outMac) try {
    const kv::os::CancellationHold hold;
    const std::string hostLink = kv_getDefaultHostLinkInterface();
    if (hostLink.empty()) {
        kv_printf(kv_error, "Failed to determine default host link interface\n");
        return -1;
    }
    ifaddrs* taken = nullptr;
    const bool failed = ::getifaddrs(&taken) != 0;
    const IfaddrsPtr list(taken);
    if (failed) {
        kv_printf(kv_error, "Failed to get interface addresses\n");
        return -1;
    }
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        const sockaddr_ll* address = linkAddressOf(*entry);
        if (address != nullptr && hostLink == entry->ifa_name) {
            // Some links that are no Ethernet have longer addresses than callers have room for.
            const std::size_t length = std::min<std::size_t>(address->sll_halen, sizeof address->sll_addr);
            std::memcpy(outMac, address->sll_addr, length);
            return 0;
        }
    }
    return -1;
} catch (const std::exception&) {
    return -1;
}
