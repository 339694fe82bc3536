#include <cerrno>
#include <cstring>
#include <filesystem>
#include <unistd.h>

#include "pci_machine.h"

using kv::test::debug;
using kv::test::error;
using kv::test::info;
using kv::test::kAnySubsystem;
using kv::test::kDevice;
using kv::test::kVendor;
using kv::test::warning;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kPath = "/sys/bus/pci/devices/0000:01:04.0/";

/** A board with a BAR of 8 KiB on a page boundary and two of 256 bytes inside a page, 4 GiB apart. */
class BarMapping : public kv::test::PciMachine {
 protected:
    void SetUp() override {
        addBridge(0, 1, 1);
        addBoard(1, 4)
            .bar(0, 0xA0002000, 0x2000)
            .registers({{0x0, 0x11111111}, {0x1FFC, 0x22222222}})
            .bar(1, 0xA0010100, 0x100)
            .registers({{0x0, 0x33333333}, {0xFC, 0x44444444}})
            .bar(4, 0x1A0010100, 0x100)
            .registers({{0x0, 0x55555555}})
            .enabled(true);
        ENTER_MACHINE(machine_);
        ASSERT_EQ(kvPCI_getDeviceAtSlot(kVendor, kDevice, kAnySubsystem, kAnySubsystem, 1, 4, &board_), 0);
    }

    static uint32_t wordAt(const void* base, std::size_t offset) {
        uint32_t word;
        std::memcpy(&word, static_cast<const char*>(base) + offset, sizeof word);
        return word;
    }

    kv_PCIDevice board_{};
};

TEST_F(BarMapping, OnAPageBoundaryGoesThroughTheResourceFile) {
    void* base = kv_mapMemory(&board_, 0);
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(board_.VirtAddress[0], reinterpret_cast<uintptr_t>(base));
    EXPECT_EQ(wordAt(base, 0), 0x11111111U);
    EXPECT_EQ(wordAt(base, 0x1FFC), 0x22222222U);
    *static_cast<volatile uint32_t*>(base) = 0xCAFE;
    EXPECT_EQ(machine_.pci(1, 4).barWord(0, 0), 0xCAFEU) << "writes reach the board";
    EXPECT_THAT(log_.take(), ElementsAre(debug(std::string("Opening: ") + kPath + "resource0")));
}

TEST_F(BarMapping, InsideAPageGoesThroughPhysicalMemoryToItsFirstByte) {
    void* base = kv_mapMemory(&board_, 1);
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), 0x100U);
    EXPECT_EQ(board_.VirtAddress[1], reinterpret_cast<uintptr_t>(base));
    EXPECT_EQ(wordAt(base, 0), 0x33333333U);
    EXPECT_EQ(wordAt(base, 0xFC), 0x44444444U);
    static_cast<volatile uint32_t*>(base)[1] = 0xBEEF;
    EXPECT_EQ(machine_.pci(1, 4).barWord(1, 4), 0xBEEFU);

    void* above4GiB = kv_mapMemory(&board_, 4);
    ASSERT_NE(above4GiB, nullptr);
    EXPECT_EQ(wordAt(above4GiB, 0), 0x55555555U);
}

TEST_F(BarMapping, EnablesADisabledDeviceAndLeavesAnEnabledOneAlone) {
    const std::string enable = std::string(kPath) + "enable";
    const struct {
        const char* before;
        const char* after;
    } cases[] = {{"0\n", "1\n"}, {"0", "1"},       {"1\n", "1\n"},
                 {"2\n", "2\n"}, {"-1\n", "-1\n"}, {"garbled\n", "1arbled\n"}};
    for (const auto& each : cases) {
        kvsim::Machine::write(enable, each.before);
        EXPECT_NE(kv_mapMemory(&board_, 0), nullptr);
        EXPECT_EQ(kvsim::Machine::read(enable), each.after) << "from '" << each.before << "'";
    }
}

TEST_F(BarMapping, GoesOnWithAWarningWhereTheDeviceCannotBeEnabled) {
    const std::string enable = std::string(kPath) + "enable";
    const std::string opening = std::string("Opening: ") + kPath + "resource0";
    kvsim::Machine::replaceByFolder(enable);
    EXPECT_NE(kv_mapMemory(&board_, 0), nullptr);
    EXPECT_THAT(log_.take(),
                ElementsAre(warning("Failed to read " + enable + ": Is a directory"), debug(opening)));

    kvsim::Machine::remove(enable);
    std::filesystem::create_symlink("/dev/full", enable);  // reads as zeros, takes no text
    EXPECT_NE(kv_mapMemory(&board_, 0), nullptr);
    EXPECT_THAT(log_.take(), ElementsAre(warning("Failed to write " + enable + ": No space left on device"),
                                         debug(opening)));

    kvsim::Machine::remove(enable);
    EXPECT_NE(kv_mapMemory(&board_, 0), nullptr);
    EXPECT_THAT(log_.take(), ElementsAre(warning("Failed to open " + enable + ": No such file or directory"),
                                         debug(opening)));
}

TEST_F(BarMapping, FailsWithAReasonAndLeavesTheRecordAlone) {
    const auto failure = [](int number) {
        return error(std::string("Failed opening PCI device: ") + std::strerror(number));
    };
    kvsim::Machine::remove(std::string(kPath) + "resource0");
    EXPECT_EQ(kv_mapMemory(&board_, 0), nullptr);
    EXPECT_EQ(log_.take().back(), failure(ENOENT));

    kvsim::Machine::replaceByFolder(std::string(kPath) + "resource0");
    EXPECT_EQ(kv_mapMemory(&board_, 0), nullptr);
    EXPECT_EQ(log_.take().back(), failure(EISDIR));

    kvsim::Machine::remove("/dev/mem");
    EXPECT_EQ(kv_mapMemory(&board_, 1), nullptr);
    EXPECT_EQ(log_.take().back(), failure(ENOENT));

    EXPECT_EQ(kv_mapMemory(&board_, 6), nullptr) << "there is no such BAR";
    EXPECT_THAT(log_.take(), ElementsAre(failure(EINVAL)));

    kvsim::Machine::write(std::string(kPath) + "resource2", "");
    EXPECT_EQ(kv_mapMemory(&board_, 2), nullptr) << "a BAR of size 0";
    EXPECT_EQ(log_.take().back(), failure(EINVAL));
    EXPECT_THAT(board_.VirtAddress, testing::Each(0U));
}

TEST_F(BarMapping, ShowsTheBoardAndRefusesPortIo) {
    board_.SubDeviceId = 0x21;
    board_.SubVendorId = 0x43;
    board_.VirtAddress[0] = 0x7f00deadbeefUL;
    log_.take();
    kv_showPciDevice(&board_);
    EXPECT_THAT(log_.take(),
                ElementsAre(info("VendorId = 0x1b5a, DeviceId = 0x100"), info("Subsystem Device ID = 0x21"),
                            info("Subsystem Vendor ID = 0x43"), info("bus = 1, slot = 4"),
                            info("    Phys   Virtual   Length IO/Mem"), info("a0002000 deadbeef 00002000"),
                            info("a0010100 00000000 00000100"), info("00000000 00000000 00000000"),
                            info("00000000 00000000 00000000"), info("a0010100 00000000 00000100"),
                            info("00000000 00000000 00000000")));
    EXPECT_EQ(kv_mapIo(&board_, 0), nullptr);
    EXPECT_THAT(log_.take(), ElementsAre(error("kv_mapIo() not implemented for aarch64")));
}

}  // namespace
