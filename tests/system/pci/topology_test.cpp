// The bus as the library scans it, beside the bus as the kernel has it.

#include <cstring>
#include <map>

#include "pci_kernel.h"

using kv::test::Board;
using kv::test::KernelFunction;
using kv::utils::formatString;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

std::string nameOf(const kv_topo_node& node) {
    return formatString("0000:%02x:%02x.%x", node.bus, node.slot, node.func);
}

const kv_topo_bridge& bridgeOf(const kv_topo_node& node) {
    return *reinterpret_cast<const kv_topo_bridge*>(node.customData);
}

/** A function in one line. A bridge has buses in the place of subsystem ids. */
std::string describe(const KernelFunction& function) {
    const bool isBridge = function.has("secondary_bus_number");
    const std::string parent = function.parent();
    return formatString(
        "%s %04x:%04x class %06x %s %04x:%04x behind %s %s", function.name().c_str(),
        function.number("vendor"), function.number("device"), function.number("class"),
        isBridge ? "buses" : "subsystem",
        function.number(isBridge ? "secondary_bus_number" : "subsystem_vendor"),
        function.number(isBridge ? "subordinate_bus_number" : "subsystem_device"),
        parent.starts_with("0000:") ? parent.c_str() : "the root",
        function.has("max_link_width") ? ("x" + function.text("max_link_width")).c_str() : "PCI");
}

std::string describe(const kv_topo_node& node) {
    const bool isBridge = node.headerType == 1;
    const char* width = std::strchr(node.interfaceType, 'x');
    return formatString("%s %04x:%04x class %06x %s %04x:%04x behind %s %s", nameOf(node).c_str(), node.VID,
                        node.DID, node.classcode, isBridge ? "buses" : "subsystem",
                        isBridge ? bridgeOf(node).sec : node.SubVID,
                        isBridge ? bridgeOf(node).sub : node.SubDID,
                        node.parent == nullptr ? "the root" : nameOf(*node.parent).c_str(),
                        width == nullptr ? node.interfaceType : width);
}

void collect(const kv_topo_node* nodes, uint32_t count, std::map<std::string, kv_topo_node>& found) {
    for (const kv_topo_node* node = nodes; node != nodes + count; ++node) {
        EXPECT_TRUE(found.emplace(nameOf(*node), *node).second) << nameOf(*node) << " twice";
        if (node->headerType == 1) {
            collect(bridgeOf(*node).children, bridgeOf(*node).nChildren, found);
        }
    }
}

class Topology : public testing::Test {
 protected:
    /** Compares a new scan with sysfs. @return all nodes by name; they live as long as the scan */
    static std::map<std::string, kv_topo_node> expectTheKernels(const kv::OwnedTopology& scan) {
        std::map<std::string, kv_topo_node> nodes;
        collect(scan.nodes(), static_cast<uint32_t>(scan.count()), nodes);
        std::vector<std::string> ours;
        for (const auto& [name, node] : nodes) {
            ours.push_back(describe(node));
        }
        std::vector<std::string> kernels;
        for (const KernelFunction& function : KernelFunction::all()) {
            kernels.push_back(describe(function));
        }
        EXPECT_THAT(ours, ElementsAreArray(kernels));
        return nodes;
    }

    kv::test::LogCapture log_;
};

TEST_F(Topology, IsTheKernels) {
    const kv::OwnedTopology scan;
    const auto nodes = expectTheKernels(scan);

    std::vector<uint32_t> slots;
    for (const KernelFunction& port : KernelFunction::all(Board::kDownstreamPort)) {
        const kv_topo_node& node = nodes.at(port.name());
        slots.push_back(node.slot);
        ASSERT_EQ(bridgeOf(node).nChildren, 1U) << port;
        EXPECT_EQ(bridgeOf(node).children->DID, deviceOf(Board::kController));
        EXPECT_EQ(bridgeOf(node).children->parent->parent, node.parent) << "the switch";
        EXPECT_THAT(bridgeOf(node).children->interfaceType, StartsWith("PCIe1 "));
    }
    EXPECT_THAT(slots, ElementsAre(2, 3, 4, 5));

    const kv_topo_node& empty = nodes.at("0000:00:03.0");
    EXPECT_EQ(bridgeOf(empty).nChildren, 0U);
    EXPECT_EQ(bridgeOf(empty).children, nullptr);

    const auto functions = KernelFunction::all(Board::kTwoFunctions);
    ASSERT_THAT(functions, SizeIs(2));
    EXPECT_EQ(nodes.at(functions[1].name()).func, 3U);
    EXPECT_TRUE(nodes.at(functions[0].name()).MF);

    const kv_topo_node& conventional = nodes.at(KernelFunction::all(Board::kSmallBar).at(0).name());
    EXPECT_STREQ(conventional.interfaceType, "PCI");
    EXPECT_THAT(conventional.parent->interfaceType, StartsWith("PCIe"));
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(Topology, FollowsWhatTheKernelTakesAwayAndFindsAgain) {
    const auto boards = KernelFunction::all(Board::kSmallBar);
    ASSERT_THAT(boards, SizeIs(2));
    const KernelFunction& taken = boards[1];
    const kv::OwnedTopology before;
    const auto nodes = expectTheKernels(before);

    ASSERT_EQ(kv::test::writeText(taken.path("remove"), "1"), 0);
    EXPECT_THAT(expectTheKernels(kv::OwnedTopology()), SizeIs(nodes.size() - 1));
    kv_PCIDevice record{};
    const auto bus = static_cast<int>(taken.bus());
    const auto slot = static_cast<int>(taken.slot());
    EXPECT_EQ(
        kv_detectPciDeviceAtSlot(&record, "Card", vendorOf(Board::kSmallBar), deviceOf(Board::kSmallBar),
                                 KV_PCI_ANY_SUBSYSTEM, KV_PCI_ANY_SUBSYSTEM, bus, slot),
        1);
    EXPECT_EQ(pKvErrorStr, formatString("Card not found at bus %i, slot %i (rc:1)", bus, slot));

    ASSERT_EQ(kv::test::writeText("/sys/bus/pci/rescan", "1"), 0);
    EXPECT_THAT(expectTheKernels(kv::OwnedTopology()), SizeIs(nodes.size()));
    EXPECT_NE(recordOf(taken).Length[1], 0U);
}

}  // namespace
