#include <array>
#include <dirent.h>
#include <filesystem>
#include <iterator>
#include <string>
#include <sys/resource.h>

#include "breakable_listing.h"
#include "pci_machine.h"

using kv::test::error;
using kv::test::kAnySubsystem;
using kv::test::kDevice;
using kv::test::kVendor;
using kvsim::Machine;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

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

    static int topology() { return kv::OwnedTopology().count(); }

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

TEST_F(PciFaults, AListOfDevicesThatBreaksOff) {
    ::alarm(20);
    kv::test::BreakableListing listing(kDevices);
    const auto before = openFiles();
    const auto expectFailure = [&](int brokenListing, const char* call, int result, int documented) {
        EXPECT_EQ(result, documented) << call << ", listing " << brokenListing;
        EXPECT_EQ(openFiles(), before) << call << ", listing " << brokenListing;
    };
    for (const int broken : {1, 2}) {
        listing.breakNth(broken);
        expectFailure(broken, "by index", byIndex(), 1);
        listing.breakNth(broken);
        expectFailure(broken, "at a slot", atSlot(), 1);
        listing.breakNth(broken);
        expectFailure(broken, "topology", topology(), -1);
    }
    EXPECT_EQ(byIndex(), 0) << "a broken list is not kept";
    EXPECT_EQ(atSlot(), 0);
    EXPECT_EQ(topology(), 1);
    listing.breakNth(1);
    expectFailure(1, "topology with the list of the look-up", topology(), -1);
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none{0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(topology(), -1) << "without a descriptor for it";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
}

TEST_F(PciFaults, ADeviceThatVanishesBeforeItIsVisitedHidesNoOther) {
    EXPECT_EQ(topology(), 1) << "lists the devices, visits none";
    Machine::remove(std::string(kDevices) + "/0000:00:01.0");
    EXPECT_EQ(byIndex(), 0);
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
    std::filesystem::resize_file(config, 4);
    EXPECT_EQ(byIndex(), 0);
    EXPECT_EQ(std::filesystem::file_size(config), 4U) << "a command that cannot be read is not written";
    Machine::replaceByFolder(config);
    EXPECT_EQ(byIndex(), 0) << "the identity comes from other files";
    EXPECT_EQ(kvPCI_getDeviceByIdx(kVendor, kDevice, 0x1111, kAnySubsystem, 1, &board_), 1);
    EXPECT_EQ(atSlot(), 0);
    const kv::OwnedTopology scanned;
    ASSERT_EQ(scanned.count(), 1);
    EXPECT_EQ(reinterpret_cast<kv_topo_bridge*>(scanned.nodes()[0].customData)->nChildren, 0U);
    log_.take();
    kvPCI_restorePCIConfig(&board_, std::array<uint32_t, 8>{}.data());
    EXPECT_THAT(log_.take(), ElementsAre(error("PCI header restore: device not found (bus: 1 / slot: 0)")));
}

TEST_F(PciFaults, NoCallLeavesAFileOpenBesideTheBoardsOfALookUp) {
    topology();
    byIndex();
    EXPECT_THAT(inheritedFiles(), Not(HasSubstr("config")));
    const auto before = openFiles();
    uint32_t saved[8];
    for (const char* fault : {"", "/0000:01:00.0/resource", "/garbled"}) {
        if (*fault != '\0') {
            Machine::write(std::string(kDevices) + fault, "no numbers here\n");
        }
        for (int repetition = 0; repetition < 5; ++repetition) {
            EXPECT_EQ(atSlot(), *fault == '\0' ? 0 : 1);
            topology();
            kv_mapMemory(&board_, 0);
            kvPCI_backupPCIConfig(&board_, saved);
            kvPCI_restorePCIConfig(&board_, saved);
            kv_pci_unbindDriver(&board_);
            kv_pci_probeDriver(&board_);
            byIndex();
        }
        EXPECT_EQ(openFiles(), before) << "with the fault '" << fault << "'";
    }
}

}  // namespace
