#include <cstdio>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "pci_machine.h"

extern "C" {
#include <pci/pci.h>
}

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Topology : public kv::test::PciMachine {
 protected:
    kvsim::PciFunctionBuilder addFunction(uint8_t bus, uint8_t slot, uint8_t function) {
        kvsim::PciFunction description = board(bus, slot);
        description.function = function;
        return machine_.addPciFunction(description);
    }

    /** Scans a bus. What the nodes point to lives until the test ends. */
    std::vector<kv_topo_node> scan(uint32_t bus = 0) {
        const kv::OwnedTopology& topology = topologies_.emplace_back(bus);
        return nodesOf(topology.nodes(), topology.count());
    }

    static const kv_topo_bridge& bridgeOf(const kv_topo_node& node) {
        return *reinterpret_cast<const kv_topo_bridge*>(node.customData);
    }

    static std::vector<kv_topo_node> childrenOf(const kv_topo_node& node) {
        return nodesOf(bridgeOf(node).children, static_cast<int32_t>(bridgeOf(node).nChildren));
    }

 private:
    static std::vector<kv_topo_node> nodesOf(const kv_topo_node* nodes, int32_t count) {
        return {nodes, nodes + count};
    }

    std::list<kv::OwnedTopology> topologies_;
};

std::vector<std::tuple<uint32_t, uint32_t, uint32_t>> places(const std::vector<kv_topo_node>& nodes) {
    std::vector<std::tuple<uint32_t, uint32_t, uint32_t>> list;
    for (const kv_topo_node& node : nodes) {
        list.emplace_back(node.bus, node.slot, node.func);
    }
    return list;
}

TEST_F(Topology, DescribesAFunctionByItsConfigurationSpace) {
    kvsim::PciFunction board = this->board(0, 4);
    board.classCode = 0x020000;
    machine_.addPciFunction(board).subsystem(0x1111, 0x2222).expressCapability(2, 4);
    addBoard(0, 9);
    ENTER_MACHINE(machine_);

    const auto nodes = scan();
    ASSERT_EQ(nodes.size(), 2U);
    EXPECT_EQ(nodes[0].VID, kv::test::kVendor);
    EXPECT_EQ(nodes[0].DID, kv::test::kDevice);
    EXPECT_EQ(nodes[0].SubVID, 0x1111U);
    EXPECT_EQ(nodes[0].SubDID, 0x2222U);
    EXPECT_EQ(nodes[0].classcode, 0x020000U);
    EXPECT_STREQ(nodes[0].interfaceType, "PCIe2 x4");
    EXPECT_FALSE(nodes[0].MF);
    EXPECT_EQ(nodes[0].headerType, 0U);
    EXPECT_EQ(nodes[0].parent, nullptr);
    EXPECT_STREQ(nodes[1].interfaceType, "PCI");
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(Topology, FollowsTheMultiFunctionBitOfFunctionZero) {
    addFunction(0, 1, 0);
    addFunction(0, 1, 5);
    addFunction(0, 2, 0);
    addFunction(0, 2, 3);
    addFunction(0, 3, 3);
    ENTER_MACHINE(machine_);
    machine_.pci(0, 2, 0).setConfig8(0x0E, 0x00);  // a single-function device never answers at function 3

    const auto nodes = scan();
    EXPECT_THAT(places(nodes), ElementsAre(std::tuple(0, 1, 0), std::tuple(0, 1, 5), std::tuple(0, 2, 0),
                                           std::tuple(0, 3, 3)));
    EXPECT_TRUE(nodes[0].MF);
}

TEST_F(Topology, HangsTheFunctionsBehindABridgeBelowIt) {
    addBridge(0, 1, 1);
    addBridge(1, 2, 2);
    addBridge(1, 3, 3);
    addBoard(2, 0);
    addBoard(0, 5);
    ENTER_MACHINE(machine_);

    const kv::OwnedTopology topology;
    const kv_topo_node* nodes = topology.nodes();
    ASSERT_EQ(topology.count(), 2) << "children are not counted";
    EXPECT_EQ(nodes[0].headerType, 1U);
    EXPECT_EQ(bridgeOf(nodes[0]).prim, 0U);
    EXPECT_EQ(bridgeOf(nodes[0]).sec, 1U);
    EXPECT_EQ(bridgeOf(nodes[0]).sub, 3U);

    const auto ports = childrenOf(nodes[0]);
    ASSERT_THAT(places(ports), ElementsAre(std::tuple(1, 2, 0), std::tuple(1, 3, 0)));
    EXPECT_EQ(ports[0].parent, &nodes[0]);
    EXPECT_THAT(places(childrenOf(ports[0])), ElementsAre(std::tuple(2, 0, 0)));
    EXPECT_EQ(childrenOf(ports[0])[0].parent, &bridgeOf(nodes[0]).children[0]);
    EXPECT_EQ(bridgeOf(ports[1]).nChildren, 0U) << "an empty bridge";
    EXPECT_EQ(bridgeOf(ports[1]).children, nullptr);

    EXPECT_THAT(places(scan(2)), ElementsAre(std::tuple(2, 0, 0)));
    EXPECT_EQ(scan(2)[0].parent, nullptr) << "the scan begins there";
}

TEST_F(Topology, DoesNotDescendIntoABusThatIsBeingScanned) {
    addBridge(0, 1, 1);
    addBridge(1, 0, 2);
    addBoard(2, 0);
    ENTER_MACHINE(machine_);
    for (const uint32_t secondary : {0U, 1U, 2U}) {
        machine_.pci(1, 0).setConfig8(0x19, static_cast<uint8_t>(secondary));
        const auto behind = childrenOf(scan().at(0));
        ASSERT_EQ(behind.size(), 1U);
        EXPECT_EQ(bridgeOf(behind[0]).sec, secondary);
        EXPECT_EQ(bridgeOf(behind[0]).nChildren, secondary == 2 ? 1U : 0U) << "secondary bus " << secondary;
    }
    machine_.pci(0, 1).setConfig8(0x19, 0);
    EXPECT_EQ(bridgeOf(scan().at(0)).nChildren, 0U) << "a bridge that was never set up";
}

TEST_F(Topology, IsEmptyWhereNothingAnswers) {
    ENTER_MACHINE(machine_);
    for (const uint32_t bus : {0U, 7U, 255U, 256U, 0xFFFFFFFFU}) {
        kv_topo_node unset;
        kv_topo_node* nodes = &unset;
        EXPECT_EQ(kv_getPciTopologyAtBus(&nodes, bus), 0) << "bus " << bus;
        EXPECT_EQ(nodes, nullptr);
    }
}

TEST_F(Topology, SeesABusAsItIsNow) {
    addBoard(0, 1);
    addBoard(0, 2);
    ENTER_MACHINE(machine_);
    EXPECT_EQ(scan().size(), 2U);
    kvsim::Machine::remove("/sys/bus/pci/devices/0000:00:01.0");
    EXPECT_THAT(places(scan()), ElementsAre(std::tuple(0, 2, 0)));
}

TEST_F(Topology, ReadsATruncatedConfigurationSpaceAsAllOnes) {
    addBoard(0, 1);
    addBoard(0, 2);
    ENTER_MACHINE(machine_);
    const std::string config = machine_.pci(0, 1).path() + "/config";
    std::filesystem::resize_file(config, 4);
    auto nodes = scan();
    ASSERT_EQ(nodes.size(), 2U);
    EXPECT_EQ(nodes[0].VID, kv::test::kVendor);
    EXPECT_EQ(nodes[0].classcode, 0xFFFFFFU);
    EXPECT_EQ(nodes[0].headerType, 0x7FU);

    std::filesystem::resize_file(config, 0);
    EXPECT_THAT(places(scan()), ElementsAre(std::tuple(0, 2, 0)))
        << "without a vendor id there is no function";
}

TEST_F(Topology, PrintsChildrenBelowTheirBridgeOneTabFurtherIn) {
    addBridge(0, 1, 1).expressCapability(2, 4);
    addFunction(1, 0, 0);
    addFunction(1, 0, 1);
    addBoard(0, 2);
    ENTER_MACHINE(machine_);
    machine_.pci(0, 2).setConfig8(0x0E, 0x02);
    machine_.pci(0, 2).setConfig8(0x19, 1);  // what lies behind a CardBus bridge is not shown

    const kv::OwnedTopology topology;
    testing::internal::CaptureStdout();
    kv_printPciTopology(topology.nodes(), static_cast<uint32_t>(topology.count()));
    kv_printPciTopology(nullptr, 1);
    std::fflush(stdout);
    const std::string expected = kv::utils::formatString(
        "00,01,00\t-\tVID: %04x, DID: %04x, PCIe2 x4\t\t\t(PCI-to-PCI bridge)\n"
        "\t01,00,00\t-\tVID: 1b5a, DID: 0100, PCI\t\t(MF)\t\n"
        "\t01,00,01\t-\tVID: 1b5a, DID: 0100, PCI\t\t(MF)\t\n"
        "00,02,00\t-\tVID: 1b5a, DID: 0100, PCI\t\t\t(Cardbus bridge)\n",
        topology.nodes()[0].VID, topology.nodes()[0].DID);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
}

void ignoreMessage(char* /*message*/, ...) {}

// The scan reads one directory in place of probing every address. It must find what the probes find.
TEST_F(Topology, FindsWhatProbingEveryAddressFinds) {
    for (uint8_t slot = 1; slot < 8; ++slot) {
        addBridge(0, slot, static_cast<uint8_t>(slot * 2));
        addFunction(static_cast<uint8_t>(slot * 2), static_cast<uint8_t>(31 - slot), 0);
        addFunction(static_cast<uint8_t>(slot * 2), static_cast<uint8_t>(31 - slot),
                    static_cast<uint8_t>(slot % 8));
        addFunction(0, 20, static_cast<uint8_t>(slot - 1));
    }
    ENTER_MACHINE(machine_);

    const std::unique_ptr<pci_access, void (*)(pci_access*)> access(pci_alloc(), pci_cleanup);
    pci_init(access.get());
    access->warning = ignoreMessage;
    for (int bus = 0; bus < 20; ++bus) {
        std::vector<std::tuple<uint32_t, uint32_t, uint32_t>> probed;
        for (int address = 0; address < 256; ++address) {
            const std::unique_ptr<pci_dev, void (*)(pci_dev*)> device(
                pci_get_dev(access.get(), 0, bus, address / 8, address % 8), pci_free_dev);
            if (pci_read_word(device.get(), PCI_VENDOR_ID) != 0xFFFF) {
                probed.emplace_back(bus, address / 8, address % 8);
            }
        }
        EXPECT_EQ(places(scan(static_cast<uint32_t>(bus))), probed) << "bus " << bus;
    }
}

}  // namespace
