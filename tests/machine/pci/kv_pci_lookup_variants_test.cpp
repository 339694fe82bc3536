#include <vector>

#include "pci_machine.h"

using kv::test::debug;
using kv::test::kAnySubsystem;
using kv::test::kVendor;
using testing::Contains;
using testing::ElementsAre;

namespace {

constexpr uint16_t kVariantA = 0x0100;
constexpr uint16_t kVariantB = 0x0101;

class Variants : public kv::test::PciMachine {
 protected:
    int find(int position, int bus = -1, int slot = -1, std::size_t variants = 2) {
        return kv_findPciDeviceMultiIDs(&record_, "AI", variants, vendors_, devices_, subVendors_,
                                        subDevices_, position, bus, slot);
    }

    uint16_t vendors_[2] = {kVendor, kVendor};
    uint16_t devices_[2] = {kVariantA, kVariantB};
    uint16_t subVendors_[2] = {kAnySubsystem, kAnySubsystem};
    uint16_t subDevices_[2] = {kAnySubsystem, kAnySubsystem};
    kv_PCIDevice record_{};
};

/** A board of variant B on bus 2, two of variant A on bus 7. */
class TwoVariants : public Variants {
 protected:
    void SetUp() override {
        addBridge(0, 1, 2);
        addBridge(0, 2, 7);
        addBoard(2, 0, kVariantB);
        addBoard(7, 3, kVariantA);
        addBoard(7, 1, kVariantA);
        ENTER_MACHINE(machine_);
    }
};

TEST_F(TwoVariants, ArePutInBusAndSlotOrderTogether) {
    const struct {
        uint32_t bus;
        uint32_t slot;
        uint32_t ordinalOfItsVariant;
    } boards[] = {{2, 0, 1}, {7, 1, 1}, {7, 3, 2}};
    int position = 1;
    for (const auto& each : boards) {
        ASSERT_EQ(find(position), 0) << "position " << position;
        EXPECT_EQ(record_.bus, each.bus);
        EXPECT_EQ(record_.slot, each.slot);
        EXPECT_EQ(record_.pciIdx, each.ordinalOfItsVariant);
        ++position;
    }
    log_.take();
    find(1);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Bus: -1, Slot: -1"), debug("Autosearch mode"),
                                         debug("Looking for VID 0x1b5a DID 0x0100 at index 1"),
                                         debug("Looking for VID 0x1b5a DID 0x0100 at index 2"),
                                         debug("Looking for VID 0x1b5a DID 0x0100 at index 3"),
                                         debug("Looking for VID 0x1b5a DID 0x0101 at index 1"),
                                         debug("Looking for VID 0x1b5a DID 0x0101 at index 2"),
                                         debug("AI PciAutosearchPos1: Found at bus 2, slot 0")));
}

TEST_F(TwoVariants, AreNotFoundAtPositionsThatDoNotExist) {
    for (const int position : {4, 0, -1}) {
        record_ = {};
        EXPECT_EQ(find(position), 1) << "position " << position;
        EXPECT_EQ(record_.dev, nullptr);
        const std::string text = "AI PciAutosearchPos" + std::to_string(position) + ": Module not found";
        EXPECT_EQ(std::string(pKvErrorStr), text);
        EXPECT_THAT(log_.take(), Contains(debug(text)));
    }
    EXPECT_EQ(find(1, -1, -1, 0), 1) << "no variants at all";
}

TEST_F(TwoVariants, AreTriedInTurnAtASlot) {
    EXPECT_EQ(find(1, 2, 0), 0);
    EXPECT_EQ(record_.DeviceId, kVariantB);
    EXPECT_THAT(log_.take(), ElementsAre(debug("Bus: 2, Slot: 0"), debug("Explicit mode"),
                                         debug("AI PciAutosearchPos1: Found at bus 2, slot 0")));
    EXPECT_EQ(find(1, 2, 1), 1);
    EXPECT_STREQ(pKvErrorStr, "AI PciAutosearchPos1: Not found at bus 2, slot 1 (rc:1)");
    EXPECT_EQ(find(1, 2, 0, 0), 1);
    EXPECT_STREQ(pKvErrorStr, "AI PciAutosearchPos1: Not found at bus 2, slot 0 (rc:-1)");

    log_.take();
    EXPECT_EQ(find(1, -1, 0), 1);
    EXPECT_STREQ(pKvErrorStr, "AI PciAutosearchPos1: Invalid PCI bus argument: -1");
    EXPECT_THAT(log_.take(), ElementsAre(debug("Bus: -1, Slot: 0"), debug("Explicit mode"),
                                         debug("AI PciAutosearchPos1: Invalid PCI bus argument: -1")));
}

TEST_F(Variants, SeeAtMostTwoHundredFiftyFiveBoardsOfOneIdentity) {
    for (uint8_t bus = 1; bus <= 9; ++bus) {
        addBridge(0, bus, bus);
        for (uint8_t slot = 0; slot < 32; ++slot) {
            addBoard(bus, slot, kVariantA);
        }
    }
    ENTER_MACHINE(machine_);
    EXPECT_EQ(find(255), 0);
    EXPECT_EQ(record_.pciIdx, 255U);
    EXPECT_EQ(find(256), 1) << "the index has eight bits";
}

}  // namespace
