#pragma once

#include <span>
#include <string>

#include <kv/diagnostics.h>
#include <kv/pci.h>

#include "command_support.h"

namespace kvctl {

using Nodes = std::span<const kv_topo_node>;

inline constexpr uint32_t kBridgeHeaderType = 1;

/** The functions of bus 0; none, which is reported, where there is no access to PCI. */
inline std::optional<Nodes> topLevelOf(const kv::OwnedTopology& topology, Problems& problems) {
    if (topology.count() < 0) {
        problems.report("/sys/bus/pci/devices", "this machine offers no access to PCI");
        return std::nullopt;
    }
    return Nodes(topology.nodes(), static_cast<std::size_t>(topology.count()));
}

/** What is behind a function; null where it is no bridge. */
inline const kv_topo_bridge* bridgeOf(const kv_topo_node& node) {
    return node.headerType == kBridgeHeaderType ? reinterpret_cast<const kv_topo_bridge*>(node.customData)
                                                : nullptr;
}

inline Nodes childrenOf(const kv_topo_node& node) {
    const kv_topo_bridge* bridge = bridgeOf(node);
    return bridge == nullptr ? Nodes() : Nodes(bridge->children, bridge->nChildren);
}

inline std::string addressOf(const kv_topo_node& node) {
    return kv::utils::formatString("%02x:%02x.%x", node.bus, node.slot, node.func);
}

}  // namespace kvctl
