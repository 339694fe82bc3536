#include <filesystem>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "pci_machine.h"

using kv::test::debug;
using kv::test::kAnySubsystem;
using kv::test::kCommand;
using kv::test::kDevice;
using kv::test::kMemoryAndBusMaster;
using kv::test::kVendor;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** Boards of one identity on buses 3 and 5, a stranger on bus 4. */
class Lookup : public kv::test::PciMachine {
 protected:
    void SetUp() override {
        addBridge(0, 1, 3);
        addBridge(0, 2, 4);
        addBridge(0, 3, 5);
        addBoard(5, 2).subsystem(0x1111, 0x0002).bar(0, 0xA0200000, 0x1000);
        addBoard(4, 0, 0x0999);
        addBoard(3, 7)
            .subsystem(0x1111, 0x0001)
            .bar(0, 0xA0000000, 0x1000)
            .bar(2, 0xA0100000, 0x10000, kvsim::BarSpace::PrefetchableMemory);
        ENTER_MACHINE(machine_);
    }

    int byIndex(int position, uint16_t subVendor = kAnySubsystem, uint16_t subDevice = kAnySubsystem) {
        return kvPCI_getDeviceByIdx(kVendor, kDevice, subVendor, subDevice, position, &record_);
    }

    int atSlot(uint16_t bus, uint16_t slot, uint16_t subVendor = kAnySubsystem,
               uint16_t subDevice = kAnySubsystem) {
        return kvPCI_getDeviceAtSlot(kVendor, kDevice, subVendor, subDevice, bus, slot, &record_);
    }

    kv_PCIDevice record_{};
};

TEST_F(Lookup, CountsBoardsInBusOrderFromOne) {
    const struct {
        int position;
        int result;
        uint32_t bus;
        uint32_t ordinal;
    } cases[] = {{1, 0, 3, 1}, {0, 0, 3, 1}, {-4, 0, 3, 1}, {2, 0, 5, 2}, {3, 1, 0, 0}};
    for (const auto& each : cases) {
        record_ = {};
        EXPECT_EQ(byIndex(each.position), each.result) << "position " << each.position;
        EXPECT_EQ(record_.bus, each.bus) << "position " << each.position;
        EXPECT_EQ(record_.pciIdx, each.ordinal) << "position " << each.position;
        EXPECT_THAT(log_.take(), ElementsAre(debug("Looking for VID 0x1b5a DID 0x0100 at index " +
                                                   std::to_string(each.position))));
    }
    EXPECT_STREQ(pKvErrorStr, "") << "the primitives leave the error text alone";
}

using FunctionsOfOneSlot = kv::test::PciMachine;

TEST_F(FunctionsOfOneSlot, AreCountedInFunctionOrder) {
    for (const uint8_t function : {uint8_t{5}, uint8_t{0}, uint8_t{3}}) {
        kvsim::PciFunction description = board(0, 1);
        description.function = function;
        machine_.addPciFunction(description).bar(0, 0xA0000000U + function * 0x1000U, 0x1000);
    }
    ENTER_MACHINE(machine_);
    // Entered anew, the function in the middle is the first or the last one that the system lists.
    const std::string middle = "/sys/bus/pci/devices/0000:00:01.3";
    const auto target = std::filesystem::read_symlink(middle);
    kvsim::Machine::remove(middle);
    std::filesystem::create_symlink(target, middle);

    kv_PCIDevice record{};
    int position = 1;
    for (const uint32_t address : {0xA0000000U, 0xA0003000U, 0xA0005000U}) {
        ASSERT_EQ(kvPCI_getDeviceByIdx(kVendor, kDevice, kAnySubsystem, kAnySubsystem, position++, &record),
                  0);
        EXPECT_EQ(record.BaseAddress[0], address);
    }
}

TEST_F(Lookup, FillsTheRecordAndLeavesTheCallersFieldsAlone) {
    record_.hdl = &record_;
    record_.SubDeviceId = 0xAAAA;
    record_.SubVendorId = 0xBBBB;
    record_.VirtAddress[0] = 0x1234;
    ASSERT_EQ(byIndex(1), 0);
    EXPECT_NE(record_.dev, nullptr);
    EXPECT_EQ(record_.bus, 3U);
    EXPECT_EQ(record_.slot, 7U);
    EXPECT_EQ(record_.VendorId, kVendor);
    EXPECT_EQ(record_.DeviceId, kDevice);
    EXPECT_EQ(record_.BaseAddress_raw[0], 0xA0000000U);
    EXPECT_EQ(record_.BaseAddress_raw[2], 0xA0100008U) << "with the prefetchable bit";
    EXPECT_EQ(record_.BaseAddress[2], 0xA0100000U);
    EXPECT_EQ(record_.Length[0], 0x1000U);
    EXPECT_EQ(record_.Length[2], 0x10000U);
    EXPECT_EQ(record_.Length[1], 0U);
    EXPECT_EQ(record_.hdl, &record_);
    EXPECT_EQ(record_.SubDeviceId, 0xAAAA);
    EXPECT_EQ(record_.SubVendorId, 0xBBBB);
    EXPECT_EQ(record_.VirtAddress[0], 0x1234U);
}

TEST_F(Lookup, RestrictsByEachSubsystemIdThatIsNoWildcard) {
    EXPECT_EQ(byIndex(1, 0x1111, 0x0002), 0);
    EXPECT_EQ(record_.bus, 5U);
    EXPECT_EQ(record_.pciIdx, 1U);
    EXPECT_EQ(byIndex(2, 0x1111, kAnySubsystem), 0);
    EXPECT_EQ(record_.bus, 5U);
    EXPECT_EQ(byIndex(1, kAnySubsystem, 0x0002), 0);
    EXPECT_EQ(record_.bus, 5U);
    EXPECT_EQ(byIndex(1, 0x2222, kAnySubsystem), 1);

    EXPECT_EQ(atSlot(5, 2, 0x1111, 0x0002), 0);
    EXPECT_EQ(atSlot(5, 2, 0x1111, 0x0001), 1);
    EXPECT_EQ(atSlot(5, 2, 0x2222, kAnySubsystem), 1);
    EXPECT_EQ(atSlot(5, 2, kAnySubsystem, 0x0002), 0);
}

TEST_F(Lookup, EnablesEveryDeviceItVisitsOnTheWayAndNoOther) {
    for (const auto& function : machine_.description().pciFunctions) {
        machine_.pci(function.bus, function.slot).setConfig16(kCommand, 0x0141);
    }
    ASSERT_EQ(byIndex(1), 0);
    constexpr uint16_t kAdded = 0x0141 | kMemoryAndBusMaster;
    EXPECT_EQ(machine_.pci(0, 1).config16(kCommand), kAdded) << "a bridge in front";
    EXPECT_EQ(machine_.pci(3, 7).config16(kCommand), kAdded) << "the board";
    EXPECT_EQ(machine_.pci(4, 0).config16(kCommand), 0x0141) << "behind the match";

    EXPECT_EQ(byIndex(9), 1);
    EXPECT_EQ(machine_.pci(4, 0).config16(kCommand), kAdded) << "a stranger";
    EXPECT_EQ(machine_.pci(5, 2).config16(kCommand), kAdded);
}

TEST_F(Lookup, AtASlotReplacesTheCommandByteOfWhatItVisits) {
    for (const auto& function : machine_.description().pciFunctions) {
        machine_.pci(function.bus, function.slot).setConfig16(kCommand, 0x0141);
    }
    EXPECT_EQ(atSlot(3, 6), 1) << "an empty slot: everything is visited";
    for (const auto& function : machine_.description().pciFunctions) {
        EXPECT_EQ(machine_.pci(function.bus, function.slot).config16(kCommand), 0x0100 | kMemoryAndBusMaster)
            << "bus " << int{function.bus} << ": I/O space is off";
    }
    EXPECT_EQ(atSlot(4, 0), 1) << "another identity";
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(Lookup, WithoutRootRightsFindsTheBoardAndEnablesNothing) {
    const auto boardsCommand = [this] { return machine_.pci(5, 2).config16(kCommand); };
    const uint16_t before = boardsCommand();
    for (const auto& function : machine_.description().pciFunctions) {
        std::filesystem::permissions(machine_.pci(function.bus, function.slot).path() + "/config",
                                     std::filesystem::perms(0444));
    }
    __user_cap_header_struct thisThread{_LINUX_CAPABILITY_VERSION_3, 0};
    constexpr __user_cap_data_struct kNone[_LINUX_CAPABILITY_U32S_3]{};
    ASSERT_EQ(::syscall(SYS_capset, &thisThread, kNone), 0);

    EXPECT_EQ(byIndex(1, 0x1111, 0x0002), 0);
    EXPECT_EQ(record_.bus, 5U);
    EXPECT_THAT(inheritedFiles(), testing::Not(testing::HasSubstr("config")));
    EXPECT_EQ(atSlot(5, 2, 0x1111, 0x0002), 0);
    EXPECT_EQ(boardsCommand(), before);
}

TEST_F(Lookup, AtASlotCountsTheBoardsOfTheIdentityThatItPassesOver) {
    std::vector<uint32_t> ordinals;
    for (const auto& [bus, slot] : {std::pair<uint16_t, uint16_t>(3, 7), {5, 2}}) {
        record_.pciIdx = 99;
        ASSERT_EQ(atSlot(bus, slot), 0);
        EXPECT_EQ(record_.bus, bus);
        EXPECT_EQ(record_.slot, slot);
        ordinals.push_back(record_.pciIdx);
    }
    // Which of the two comes first is libpci's affair; the stranger and the bridges never count.
    EXPECT_THAT(ordinals, testing::UnorderedElementsAre(0U, 1U));
}

TEST_F(Lookup, AtASlotRescansWhileByIndexKeepsItsList) {
    ASSERT_EQ(byIndex(2), 0);
    kvsim::Machine::remove("/sys/bus/pci/devices/0000:03:07.0");
    EXPECT_EQ(atSlot(3, 7), 1);
    EXPECT_EQ(byIndex(2), 0) << "the list of the first look-up still counts the board that has gone";
    EXPECT_EQ(byIndex(1), 0);
    EXPECT_EQ(record_.bus, 5U) << "asked for, it does not hide the one behind it";
}

TEST_F(Lookup, FindsABlocksBoardInEitherMode) {
    EXPECT_EQ(kv_findPciDevice(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 2, -1, -1), 0);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Find PCI device in autosearch mode"),
                                         debug("Looking for VID 0x1b5a DID 0x0100 at index 2"),
                                         debug("AI ID2: Found at bus 5, slot 2")));
    EXPECT_EQ(kv_findPciDevice(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 2, 3, 7), 0);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Find PCI device in explicit mode"),
                                         debug("AI ID2: Found at bus 3, slot 7")));
    EXPECT_STREQ(pKvErrorStr, "");
}

TEST_F(Lookup, NamesTheBlockAndTheReasonOfAFailure) {
    const auto find = [this](int position, int bus, int slot) {
        return kv_findPciDevice(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, position, bus,
                                slot);
    };
    EXPECT_EQ(find(3, -1, -1), 1);
    EXPECT_STREQ(pKvErrorStr, "AI ID3: Module not found");
    log_.take();
    EXPECT_EQ(find(3, -1, 4), 1);
    EXPECT_STREQ(pKvErrorStr, "AI ID3: Invalid PCI bus argument: -1");
    EXPECT_THAT(log_.take(), ElementsAre(debug("Find PCI device in explicit mode")));
    EXPECT_EQ(find(3, 4, 0), 1);
    EXPECT_STREQ(pKvErrorStr, "AI ID3: Not found at bus 4, slot 0 (rc:1)");

    const std::string longName(300, 'n');
    EXPECT_EQ(kv_findPciDevice(&record_, longName.c_str(), kVendor, kDevice, kAnySubsystem, kAnySubsystem, 3,
                               0, -1),
              1);
    EXPECT_EQ(std::string(pKvErrorStr), std::string(127, 'n') + " ID3: Module not found");
}

TEST_F(Lookup, DetectsWithoutAWordOfItsOwn) {
    EXPECT_EQ(kv_detectPciDevice(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 2), 0);
    EXPECT_EQ(record_.bus, 5U);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Looking for VID 0x1b5a DID 0x0100 at index 2")));
    EXPECT_EQ(kv_detectPciDevice(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 3), 1);
    EXPECT_STREQ(pKvErrorStr, "AI pciIDxPlusOne3: Module not found");

    log_.take();
    EXPECT_EQ(kv_detectPciDeviceAtSlot(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 3, 7),
              0);
    EXPECT_EQ(record_.bus, 3U);
    EXPECT_EQ(kv_detectPciDeviceAtSlot(&record_, "AI", kVendor, kDevice, kAnySubsystem, kAnySubsystem, 3, 8),
              1);
    EXPECT_STREQ(pKvErrorStr, "AI not found at bus 3, slot 8 (rc:1)");
    EXPECT_THAT(log_.take(), IsEmpty());
}

}  // namespace
