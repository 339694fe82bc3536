#include "pci_command.h"

#include <array>
#include <iostream>
#include <memory>
#include <string>

#include <kv/diagnostics.h>
#include <kv/pci.h>

#include "command_support.h"
#include "topology.h"

extern "C" {
#include <pci/pci.h>
}

namespace kvctl {

namespace {

using kv::utils::formatString;

std::string idText(uint32_t id) {
    return formatString("%04x", id);
}

/** Names of devices from the pci.ids database; numbers where it has none. */
class Names {
 public:
    std::string describe(const kv_topo_node& node) {
        const int deviceClass = static_cast<int>(node.classcode >> 8);
        return lookUp(PCI_LOOKUP_CLASS, deviceClass, 0) + ": " +
               lookUp(PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE, static_cast<int>(node.VID),
                      static_cast<int>(node.DID));
    }

 private:
    struct Cleanup {
        void operator()(pci_access* access) const { pci_cleanup(access); }
    };

    using Access = std::unique_ptr<pci_access, Cleanup>;

    static Access open() {
        Access access(pci_alloc());
        pci_init(access.get());
        return access;
    }

    std::string lookUp(int flags, int first, int second) {
        std::array<char, 256> buffer;
        return pci_lookup_name(access_.get(), buffer.data(), buffer.size(), flags, first, second);
    }

    Access access_ = open();
};

void printTree(Nodes nodes, const std::string& indent, Names& names) {
    for (const kv_topo_node& node : nodes) {
        const bool last = &node == &nodes.back();
        const kv_topo_bridge* bridge = bridgeOf(node);
        std::cout << indent << (last ? "└─ " : "├─ ") << addressOf(node)
                  << formatString("  %04x:%04x  %-8s  ", node.VID, node.DID, node.interfaceType)
                  << (bridge != nullptr ? formatString("bridge to bus %02x", bridge->sec)
                                        : printable(names.describe(node)));
        std::cout << '\n';
        printTree(childrenOf(node), indent + (last ? "   " : "│  "), names);
    }
}

Json toJson(Nodes nodes) {
    Json list = Json::array();
    for (const kv_topo_node& node : nodes) {
        Json entry = {{"address", addressOf(node)},
                      {"bus", node.bus},
                      {"slot", node.slot},
                      {"function", node.func},
                      {"vendor", idText(node.VID)},
                      {"device", idText(node.DID)},
                      {"subsystemVendor", idText(node.SubVID)},
                      {"subsystemDevice", idText(node.SubDID)},
                      {"class", formatString("%06x", node.classcode)},
                      {"interface", node.interfaceType},
                      {"multiFunction", node.MF},
                      {"headerType", node.headerType}};
        if (const kv_topo_bridge* bridge = bridgeOf(node)) {
            entry["primaryBus"] = bridge->prim;
            entry["secondaryBus"] = bridge->sec;
            entry["subordinateBus"] = bridge->sub;
            entry["children"] = toJson(childrenOf(node));
        }
        list.push_back(std::move(entry));
    }
    return list;
}

void showTopology(bool asJson, Problems& problems) {
    const kv::OwnedTopology topology;
    const std::optional<Nodes> topLevel = topLevelOf(topology, problems);
    if (asJson) {
        printJson(toJson(topLevel.value_or(Nodes())));
    } else if (topLevel && topLevel->empty()) {
        std::cout << "No PCI devices.\n";
    } else if (topLevel) {
        Names names;
        printTree(*topLevel, "", names);
    }
}

}  // namespace

void addPciCommand(command_line::Program& program, Problems& problems) {
    command_line::Command& command =
        program.addCommand("pci", "Show the PCI topology, from bus 0 down through all bridges");
    const auto asJson = addJsonFlag(command);
    command.setFooter("Link widths (the x1 of PCIe2 x1) are readable by root only; others see PCI.");
    command.setAction([asJson, &problems] {
        showTopology(*asJson, problems);
        return problems.status();
    });
}

}  // namespace kvctl
