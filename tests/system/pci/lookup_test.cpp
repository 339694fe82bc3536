// Boards of a real bus, found by position, by slot and in variants.

#include <array>

#include "pci_kernel.h"

using kv::test::Board;
using kv::test::KernelFunction;
using testing::Each;

namespace {

constexpr uint16_t kAny = KV_PCI_ANY_SUBSYSTEM;
constexpr unsigned kCommand = 0x04;
constexpr uint16_t kIo = 0x01;
constexpr uint16_t kMemoryAndBusMaster = 0x06;

/** Everything but the position is as the kernel says. */
void expectRecord(const kv_PCIDevice& record, const KernelFunction& function) {
    EXPECT_EQ(record.bus, function.bus());
    EXPECT_EQ(record.slot, function.slot());
    EXPECT_EQ(record.VendorId, function.number("vendor"));
    EXPECT_EQ(record.DeviceId, function.number("device"));
    for (unsigned bar = 0; bar < KV_PCI_BARS; ++bar) {
        const KernelFunction::Resource resource = function.resource(bar);
        EXPECT_EQ(record.Length[bar], resource.size()) << function << " BAR " << bar;
        EXPECT_EQ(record.BaseAddress_raw[bar], resource.first | (resource.flags & 0xF)) << function << bar;
        EXPECT_EQ(record.BaseAddress[bar], static_cast<uint32_t>(resource.first)) << function << bar;
    }
}

class Lookup : public testing::Test {
 protected:
    Lookup() {
        for (const KernelFunction& each : functions_) {
            commands_.push_back(each.config16(kCommand));
        }
    }
    /** Looking up enables boards. */
    ~Lookup() override {
        for (std::size_t i = 0; i < functions_.size(); ++i) {
            functions_[i].setConfig16(kCommand, commands_[i]);
        }
    }

    static int byIndex(kv_PCIDevice& record, Board board, int position, uint16_t subVendor = kAny,
                       uint16_t subDevice = kAny) {
        return kv_findPciDevice(&record, "Card", vendorOf(board), deviceOf(board), subVendor, subDevice,
                                position, 0, -1);
    }

    const std::vector<KernelFunction> functions_ = KernelFunction::all();
    std::vector<uint16_t> commands_;
};

TEST_F(Lookup, CountsTheBoardsOfAnIdentityInBusOrder) {
    const auto controllers = KernelFunction::all(Board::kController);
    ASSERT_EQ(controllers.size(), 5U);
    kv_PCIDevice record{};
    for (std::size_t i = 0; i < controllers.size(); ++i) {
        ASSERT_EQ(byIndex(record, Board::kController, static_cast<int>(i) + 1), 0) << pKvErrorStr;
        expectRecord(record, controllers[i]);
        EXPECT_EQ(record.pciIdx, i + 1);
    }
    EXPECT_EQ(byIndex(record, Board::kController, 6), 1);
    EXPECT_STREQ(pKvErrorStr, "Card ID6: Module not found");

    // One of them has ids of its own.
    const auto special = std::ranges::find(
        controllers, "0x1b5a", [](const KernelFunction& each) { return each.text("subsystem_vendor"); });
    ASSERT_NE(special, controllers.end());
    EXPECT_EQ(byIndex(record, Board::kController, 1, 0x1b5a), 0);
    expectRecord(record, *special);
    EXPECT_EQ(byIndex(record, Board::kController, 1, 0x1b5a, 0x0a18), 0);
    EXPECT_EQ(byIndex(record, Board::kController, 2, 0x1b5a), 1);
    EXPECT_EQ(byIndex(record, Board::kController, 1, 0x1b5a, 0x0a19), 1);
}

TEST_F(Lookup, FindsABoardAtItsSlotWhateverPositionIsAskedFor) {
    const KernelFunction second = KernelFunction::all(Board::kSmallBar).at(1);
    const auto find = [](kv_PCIDevice& record, unsigned bus, unsigned slot) {
        return kv_findPciDevice(&record, "Card", vendorOf(Board::kSmallBar), deviceOf(Board::kSmallBar), kAny,
                                kAny, 1, static_cast<int>(bus), static_cast<int>(slot));
    };
    kv_PCIDevice record{};
    ASSERT_EQ(find(record, second.bus(), second.slot()), 0) << pKvErrorStr;
    expectRecord(record, second);
    EXPECT_EQ(record.pciIdx, 1) << "one was passed over";
    EXPECT_EQ(find(record, second.bus(), second.slot() + 1), 1);
}

TEST_F(Lookup, SortsTheBoardsOfSeveralIdentitiesByTheirPlaces) {
    std::array<uint16_t, 3> vendors{};
    std::array<uint16_t, 3> devices{};
    std::array<uint16_t, 3> any{kAny, kAny, kAny};
    std::vector<KernelFunction> places;
    std::size_t variant = 0;
    for (const Board board : {Board::kSmallBar, Board::kMemory, Board::kInterrupting}) {
        vendors[variant] = vendorOf(board);
        devices[variant++] = deviceOf(board);
        std::ranges::copy(KernelFunction::all(board), std::back_inserter(places));
    }
    std::ranges::sort(places, {}, &KernelFunction::name);
    ASSERT_EQ(places.size(), 6U);

    const auto find = [&](kv_PCIDevice& record, int position, int bus, int slot) {
        return kv_findPciDeviceMultiIDs(&record, "Card", vendors.size(), vendors.data(), devices.data(),
                                        any.data(), any.data(), position, bus, slot);
    };
    for (std::size_t i = 0; i < places.size(); i += 2) {
        kv_PCIDevice record{};
        ASSERT_EQ(find(record, static_cast<int>(i) + 1, 0, -1), 0) << pKvErrorStr;
        expectRecord(record, places[i]);
    }
    kv_PCIDevice record{};
    const KernelFunction& last = places.back();
    ASSERT_EQ(find(record, 1, static_cast<int>(last.bus()), static_cast<int>(last.slot())), 0);
    expectRecord(record, last);
    EXPECT_EQ(find(record, 7, 0, -1), 1);
    EXPECT_STREQ(pKvErrorStr, "Card PciAutosearchPos7: Module not found");
}

TEST_F(Lookup, EnablesAllThatItPassesAndAtASlotTurnsPortIoOff) {
    const auto commands = [this] {
        std::vector<int> bits;
        for (const KernelFunction& each : functions_) {
            bits.push_back(each.config16(kCommand) & (kIo | kMemoryAndBusMaster));
        }
        return bits;
    };
    for (std::size_t i = 0; i < functions_.size(); ++i) {
        functions_[i].setConfig16(kCommand,
                                  static_cast<uint16_t>((commands_[i] & ~kMemoryAndBusMaster) | kIo));
    }
    ASSERT_THAT(commands(), Each(kIo));

    kv_PCIDevice record{};
    EXPECT_EQ(byIndex(record, Board::kMemory, 2), 1) << "there is one only";
    EXPECT_THAT(commands(), Each(kIo | kMemoryAndBusMaster));
    EXPECT_EQ(
        kvPCI_getDeviceAtSlot(vendorOf(Board::kMemory), deviceOf(Board::kMemory), kAny, kAny, 0, 31, &record),
        1);
    EXPECT_THAT(commands(), Each(kMemoryAndBusMaster)) << "that of bridges, too";
}

}  // namespace
