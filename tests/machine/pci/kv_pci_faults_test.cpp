#include <array>
#include <dirent.h>
#include <filesystem>
#include <iterator>
#include <string>

#include "pci_machine.h"

using kv::test::error;
using kv::test::kAnySubsystem;
using kv::test::kDevice;
using kv::test::kVendor;
using kvsim::Machine;
using testing::ElementsAre;

namespace {

constexpr const char* kDevices = "/sys/bus/pci/devices";

/** A machine whose PCI files are broken: no call may end the process, each has its documented result. */
class PciFaults : public kv::test::PciMachine {
 protected:
    void SetUp() override {
        addBridge(0, 1, 1);
        addBoard(1, 0).bar(0, 0xA0000000, 0x1000);
        ENTER_MACHINE(machine_);
        board_.bus = 1;
    }

    int byIndex() { return kvPCI_getDeviceByIdx(kVendor, kDevice, kAnySubsystem, kAnySubsystem, 1, &board_); }
    int atSlot() {
        return kvPCI_getDeviceAtSlot(kVendor, kDevice, kAnySubsystem, kAnySubsystem, 1, 0, &board_);
    }

    void expectNothingIsFound(int32_t topologyResult) {
        kv_topo_node unset;
        kv_topo_node* nodes = &unset;
        EXPECT_EQ(kv_getPciTopology(&nodes), topologyResult);
        EXPECT_EQ(nodes, nullptr);
        EXPECT_EQ(byIndex(), 1);
        EXPECT_EQ(atSlot(), 1);
        EXPECT_EQ(kv_findPciDevice(&board_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 1, 0, -1),
                  1);
        EXPECT_STREQ(pKvErrorStr, "AI ID1: Module not found");
        uint16_t vendor = kVendor;
        uint16_t device = kDevice;
        uint16_t any = kAnySubsystem;
        EXPECT_EQ(kv_findPciDeviceMultiIDs(&board_, "AI", 1, &vendor, &device, &any, &any, 1, -1, -1), 1);
    }

    static auto openFiles() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    }

    kv_PCIDevice board_{};
};

TEST_F(PciFaults, ADirectoryOfDevicesThatIsMissing) {
    Machine::remove(kDevices);
    expectNothingIsFound(-1);
    uint32_t saved[8];
    log_.take();
    kvPCI_backupPCIConfig(&board_, saved);
    EXPECT_THAT(log_.take(), ElementsAre(error("PCI header backup: device not found (bus: 1 / slot: 0)")));
}

TEST_F(PciFaults, AnEntryThatIsNoPciAddress) {
    Machine::write(std::string(kDevices) + "/garbled", "");
    expectNothingIsFound(-1);
    Machine::remove(std::string(kDevices) + "/garbled");
    EXPECT_EQ(byIndex(), 0) << "the next call tries again";
}

TEST_F(PciFaults, AnEmptyBus) {
    for (const auto& entry : std::filesystem::directory_iterator(kDevices)) {
        Machine::remove(entry.path());
    }
    expectNothingIsFound(0);
}

TEST_F(PciFaults, AttributesThatAreGarbledOrGone) {
    const std::string folder = std::string(kDevices) + "/0000:01:00.0/";
    Machine::write(folder + "resource", "no numbers here\n");
    EXPECT_EQ(byIndex(), 1);
    EXPECT_EQ(byIndex(), 1) << "a failure is not remembered as a board without BARs";
    EXPECT_EQ(atSlot(), 1);
    Machine::remove(folder + "vendor");
    EXPECT_EQ(atSlot(), 1);
}

TEST_F(PciFaults, AConfigurationSpaceThatCannotBeOpened) {
    const std::string config = std::string(kDevices) + "/0000:01:00.0/config";
    Machine::replaceByFolder(config);
    EXPECT_EQ(byIndex(), 0) << "the identity comes from other files";
    EXPECT_EQ(kvPCI_getDeviceByIdx(kVendor, kDevice, 0x1111, kAnySubsystem, 1, &board_), 1);
    EXPECT_EQ(atSlot(), 0);
    const kv::OwnedTopology topology;
    ASSERT_EQ(topology.count(), 1);
    EXPECT_EQ(reinterpret_cast<kv_topo_bridge*>(topology.nodes()[0].customData)->nChildren, 0U);
    log_.take();
    kvPCI_restorePCIConfig(&board_, std::array<uint32_t, 8>{}.data());
    EXPECT_THAT(log_.take(), ElementsAre(error("PCI header restore: device not found (bus: 1 / slot: 0)")));
}

TEST_F(PciFaults, NoCallLeavesAFileOpen) {
    byIndex();
    const kv::OwnedTopology first;
    const auto before = openFiles();
    uint32_t saved[8];
    for (int repetition = 0; repetition < 5; ++repetition) {
        byIndex();
        atSlot();
        const kv::OwnedTopology again;
        kv_mapMemory(&board_, 0);
        kvPCI_backupPCIConfig(&board_, saved);
        kvPCI_restorePCIConfig(&board_, saved);
        kv_pci_unbindDriver(&board_);
        kv_pci_probeDriver(&board_);
    }
    EXPECT_EQ(openFiles(), before);

    for (const char* fault : {"/0000:01:00.0/resource", "/garbled"}) {
        Machine::write(std::string(kDevices) + fault, "no numbers here\n");
        for (int repetition = 0; repetition < 5; ++repetition) {
            byIndex();
            EXPECT_EQ(atSlot(), 1);
            const kv::OwnedTopology closesTheFileOfTheLookUp;
        }
        EXPECT_EQ(openFiles(), before) << "a failure for " << fault;
    }
}

}  // namespace
