#include "network/kv_ethernet_classification.h"

#include <cstdio>
#include <list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "network/kv_ethernet_labels.h"

namespace {

constexpr uint32_t kBus = 40;

/**
 * Controllers of which each word names some of one kind: "8086:1533+ffff:0@3/1/2" are two, with subsystem
 * ffff:0, the first behind a bridge at slot 1 of bus 3, the second behind one at slot 2. Without bridges it
 * is one controller.
 */
class DeviceList {
 public:
    DeviceList(const std::string& description, uint32_t bus) {
        std::istringstream words(description);
        for (std::string word; words >> word;) {
            add(word.c_str(), bus);
        }
    }

    [[nodiscard]] const std::vector<_kv_topo_node>& nodes() const { return nodes_; }

 private:
    void add(const char* word, uint32_t bus) {
        _kv_topo_node node{};
        node.bus = bus;
        node.SubVID = 0x8086;
        node.SubDID = 1;
        int length = 0;
        std::sscanf(word, "%x:%x%n", &node.VID, &node.DID, &length);
        word += std::exchange(length, 0);
        std::sscanf(word, "+%x:%x%n", &node.SubVID, &node.SubDID, &length);
        word += std::exchange(length, 0);
        _kv_topo_node bridge{};
        if (std::sscanf(word, "@%u%n", &bridge.bus, &length) != 1) {
            nodes_.push_back(node);
        }
        for (word += length; std::sscanf(word, "/%u%n", &bridge.slot, &length) == 1; word += length) {
            node.parent = &bridges_.emplace_back(bridge);
            nodes_.push_back(node);
        }
    }

    std::list<_kv_topo_node> bridges_;
    std::vector<_kv_topo_node> nodes_;
};

/** Entries of the interfaces e0, e1, ... with these labels; none for a "-". */
std::string entries(const std::string& labels) {
    std::istringstream words(labels);
    std::string text;
    int index = 0;
    for (std::string label; words >> label; ++index) {
        const std::string number = std::to_string(index);
        text += label == "-" ? "" : "e" + number + ":" + number + ":" + label + ";";
    }
    return text;
}

TEST(Classification, LabelsControllersByTheirIdentityAndTheirBridges) {
    const struct {
        const char* controllers;
        const char* labels;
        kv_TargetType targetType = Olive;
        uint32_t bus = kBus;
    } topologies[] = {
        {"", ""},
        // Each module by itself.
        {"8086:1533@3/2/3/4/5", "NME NME NME NME"},
        {"8086:1533@3/1/2/3/4", "NME NME NME NME"},
        {"8086:1533@3/1/2", "NMA NMA"},
        {"8086:1539@3/1/2", "NMA-2 NMA-2"},
        {"8086:1533+ffff:0", "NMB"},
        {"8086:1563@3/6/6", "NMC NMC"},
        {"10ec:8168", "NMD"},
        {"8086:10d3@3/2/3/4/5", "NMF NMF NMF NMF"},
        {"8086:10d3@3/4/5", "NMG NMG"},
        {"8086:107c", "NMH"},
        {"8086:1533+0:0", "NMH-2"},
        {"8086:1229@3/3/3 8006:1229 8086:107c", "- - - NMH"},
        // Strangers that look like a module.
        {"10ec:8169 10ec:1229 8006:1533 14e4:1533@3/1/2", "Onboard Onboard Onboard Onboard Onboard"},
        {"8086:8168 8086:1534@3/1/2", "Onboard Onboard Onboard"},
        {"8086:1533+ffff:1 8086:1533+0:1 8086:1533", "Onboard Onboard Onboard"},
        {"8086:1533+ffff:0", "Onboard", RamblerV3},
        {"8086:1533+ffff:0@3/2/3/4", "NMB NMB NMB"},
        // Four that are too few, end elsewhere or are of two kinds.
        {"8086:1533@3/2/3/4", "Onboard Onboard Onboard"},
        {"8086:1533@3/2/3/4/6 8086:10d3@3/2/3", "Onboard Onboard Onboard Onboard Onboard Onboard"},
        {"8086:10d3@3/2/3 8086:10d3@9/4/5", "Onboard Onboard NMG NMG"},
        {"8086:1533@3/2/3/4 8086:1539@3/5", "Onboard Onboard Onboard Onboard"},
        // Pairs in wrong slots, on two buses, of two kinds, and without their second half.
        {"8086:1533@3/2/1 8086:1539@3/2/3", "Onboard Onboard Onboard Onboard"},
        {"8086:1563@3/6/7 8086:10d3@3/5/4", "Onboard Onboard Onboard Onboard"},
        {"8086:1229@3/3/4 8086:10d3@3/4/6", "Onboard Onboard Onboard Onboard"},
        {"8086:1533@3/1 8086:1533@9/2 8086:1563@3/6 8086:1563@9/6", "Onboard Onboard Onboard Onboard"},
        {"8086:1229@3/3 8086:1229@9/3 8086:10d3@3/4 8086:10d3@9/5", "Onboard Onboard Onboard Onboard"},
        {"8086:1533@3/1 8086:1539@3/2 8086:10d3@3/4 8086:1533@3/5", "Onboard Onboard Onboard Onboard"},
        {"8086:10d3@3/4", "Onboard"},
        // Controllers that no bridge leads to.
        {"8086:1533 8086:1533 8086:1533 8086:1533", "Onboard Onboard Onboard Onboard"},
        {"8086:1563 8086:1563 8086:1229@3/3 8086:1229", "Onboard Onboard Onboard Onboard"},
        // The onboard pair, and what it is not.
        {"8086:1533@3/1/2", "Onboard Onboard", Olive, 5},
        {"8086:1533@3/1/2", "NMA NMA", Alder, 5},
        {"8086:1533@3/1/2/3/4", "NME NME NME NME", Olive, 5},
        // Mixtures.
        {"8086:1533@3/1/2 8086:1533+ffff:0@9/3", "NMA NMA NMB"},
        {"8086:1533+ffff:0@3/1 8086:1533@3/1/2", "NMB NMA NMA"},
        {"8086:1533+ffff:0@3/1/2", "NMA NMA"},
        {"8086:10d3@3/2/3/4/5/4/5/4", "NMF NMF NMF NMF NMG NMG Onboard"},
        {"8086:10d3@3/3/4/5 8086:1533@3/0/1/2", "Onboard NMG NMG Onboard NMA NMA"},
    };
    for (const auto& topology : topologies) {
        const DeviceList devices(topology.controllers, topology.bus);
        std::string text;
        appendPciEthInterfaces(text, devices.nodes(), topology.targetType, [&](const auto& node) {
            return "e" + std::to_string(&node - devices.nodes().data());
        });
        EXPECT_EQ(text, entries(topology.labels)) << topology.controllers;
    }
}

TEST(Classification, TellsHowManyControllersBelongTogether) {
    const DeviceList devices("8086:1533@3/1/2 8086:10d3@3/2/3/4/5 8086:1229@3/3/3 8086:1533", 5);
    std::vector<std::pair<IoModuleType, int>> found;
    EthInterface module{};
    for (std::size_t i = 0; i < devices.nodes().size(); i += module.nPorts) {
        isEthernetModule(&module, devices.nodes(), static_cast<int>(i), Olive);
        found.emplace_back(module.ioModule, module.nPorts);
    }
    EXPECT_EQ(found,
              (std::vector<std::pair<IoModuleType, int>>{{ONBOARD, 2}, {NMF, 4}, {NMJ, 2}, {ONBOARD, 1}}));
}

EthInterface firstOf(const std::vector<_kv_topo_node>& nodes) {
    EthInterface module{};
    isEthernetModule(&module, nodes, 0, Olive);
    return module;
}

TEST(Classification, KnowsTheOnboardPairByItsSlotToo) {
    const DeviceList devices("8086:1533@3/1/2", 5);
    std::vector<_kv_topo_node> nodes = devices.nodes();
    EXPECT_EQ(firstOf(nodes).ioModule, ONBOARD);
    nodes.front().slot = 1;
    EXPECT_EQ(firstOf(nodes).ioModule, NMA);
}

TEST(Classification, DoesNotLookBehindTheEnd) {
    for (const char* module : {"8086:1533@3/2/3/4/5", "8086:1533@3/1/2", "8086:1539@3/1/2", "8086:1563@3/6/6",
                               "8086:10d3@3/2/3/4/5", "8086:10d3@3/4/5", "8086:1229@3/3/3"}) {
        const DeviceList devices(module, kBus);
        std::vector<_kv_topo_node> nodes = devices.nodes();
        EXPECT_NE(firstOf(nodes).ioModule, ONBOARD) << module;
        nodes.pop_back();  // its record still lies behind the others
        EXPECT_EQ(firstOf(nodes).ioModule, ONBOARD) << module;
    }
}

}  // namespace
