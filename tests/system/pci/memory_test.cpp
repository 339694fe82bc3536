// BARs of real addresses, mapped as the kernel lets them be, and a board's configuration across a reset.

#include <sys/mman.h>

#include "pci_kernel.h"

using kv::test::Board;
using kv::test::error;
using kv::test::KernelFunction;
using kv::utils::formatString;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

namespace {

using Registers = volatile uint32_t*;  // device memory: nothing but aligned words

constexpr uint32_t kPageSize = 4096;
constexpr const char* kMemoryDevice = "/dev/mem";
constexpr const char* kRefused = "Failed opening PCI device: Invalid argument";

/** Maps physical memory without the library. */
Registers mapPhysical(uint64_t address, std::size_t size) {
    const int fd = ::open(kMemoryDevice, O_RDWR | O_CLOEXEC);
    void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(address));
    ::close(fd);
    EXPECT_NE(memory, MAP_FAILED) << "physical address " << address;
    return static_cast<Registers>(memory);
}

/** The file of this process's memory at an address. */
std::string fileAt(const volatile void* address) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        uintptr_t first = 0;
        uintptr_t end = 0;
        (void)std::sscanf(line.c_str(), "%lx-%lx", &first, &end);
        const auto wanted = reinterpret_cast<uintptr_t>(address);
        if (first <= wanted && wanted < end) {
            return line.substr(line.find('/'));
        }
    }
    return "";
}

/** A MAC address as the kernel writes it, from two registers. */
std::string macAddress(uint32_t low, uint32_t high) {
    return formatString("%02x:%02x:%02x:%02x:%02x:%02x", low & 0xFF, low >> 8 & 0xFF, low >> 16 & 0xFF,
                        low >> 24, high & 0xFF, high >> 8 & 0xFF);
}

/** The address of a controller's interface. */
std::string macAddress(const KernelFunction& controller) {
    return kv::test::readText("/sys/class/net/" + controller.devices("net").at(0) + "/address");
}

class BarMapping : public testing::Test {
 protected:
    Registers map(kv_PCIDevice& record, uint32_t bar) {
        void* address = kv_mapMemory(&record, bar);
        EXPECT_NE(address, nullptr) << log_.take().back();
        EXPECT_EQ(record.VirtAddress[bar], reinterpret_cast<uintptr_t>(address));
        return static_cast<Registers>(address);
    }

    kv::test::LogCapture log_;
};

TEST_F(BarMapping, OnAPageReachesTheRegistersThroughTheResourceFile) {
    enum Register { kIdentity = 0, kInverted = 1, kFactorial = 2 };
    const KernelFunction board = KernelFunction::all(Board::kInterrupting).at(0);
    ASSERT_EQ(board.driver(), "");
    ASSERT_EQ(board.text("enable"), "0");
    kv_PCIDevice record = recordOf(board);
    const Registers registers = map(record, 0);
    ASSERT_NE(registers, nullptr);
    EXPECT_EQ(board.text("enable"), "1");
    EXPECT_THAT(fileAt(registers), HasSubstr(board.name() + "/resource0"));
    EXPECT_EQ(registers[kIdentity], 0x010000edU);
    registers[kInverted] = 0x12345678;
    EXPECT_EQ(registers[kInverted], ~0x12345678U) << "the board acts";

    const Registers physical = mapPhysical(board.resource(0).first, kPageSize);
    EXPECT_EQ(physical[kInverted], ~0x12345678U) << "and it is the same board";
    EXPECT_NE(map(record, 0), nullptr);
    EXPECT_EQ(board.text("enable"), "1") << "an enabled board is left alone";
    ASSERT_EQ(kv::test::writeText(board.path("enable"), "0"), 0);
}

TEST_F(BarMapping, InsideAPageReachesTheRightBoardThroughPhysicalMemory) {
    const auto boards = KernelFunction::all(Board::kSmallBar);
    ASSERT_EQ(boards.size(), 2U);
    std::vector<std::string> addresses;
    std::vector<std::string> files;
    for (const KernelFunction& board : boards) {
        kv_PCIDevice record = recordOf(board);
        const Registers registers = map(record, 1);
        ASSERT_NE(registers, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(registers) % kPageSize, record.BaseAddress[1] % kPageSize);
        addresses.push_back(macAddress(registers[0], registers[1]));
        files.push_back(std::filesystem::path(fileAt(registers)).filename());
    }
    EXPECT_THAT(addresses, ElementsAre("52:54:00:00:02:05", "52:54:00:00:02:06"));
    // The kernel gives both a place in one page: one of them is at its start.
    EXPECT_EQ(boards[0].resource(1).first / kPageSize, boards[1].resource(1).first / kPageSize);
    EXPECT_THAT(files, UnorderedElementsAre("resource1", "mem"));
}

TEST_F(BarMapping, ReachesMemoryAboveFourGigabytes) {
    const KernelFunction board = KernelFunction::all(Board::kMemory).at(0);
    kv_PCIDevice record = recordOf(board);
    const uint64_t address = record.BaseAddress_raw[2] & ~0xFUL;
    ASSERT_GT(address, UINT32_MAX);
    ASSERT_EQ(record.Length[2], 0x100000U);
    const Registers registers = map(record, 2);
    ASSERT_NE(registers, nullptr);
    const std::size_t last = record.Length[2] / sizeof(uint32_t) - 1;
    registers[0] = 0xCAFE;
    registers[last] = 0xBEEF;
    const Registers physical = mapPhysical(address, record.Length[2]);
    EXPECT_EQ(physical[0], 0xCAFEU);
    EXPECT_EQ(physical[last], 0xBEEFU);
}

TEST_F(BarMapping, IsRefusedByTheKernelWhileADriverUsesTheBoard) {
    const KernelFunction board = KernelFunction::all(Board::kController).back();
    ASSERT_EQ(board.driver(), "e1000e");
    const std::string mac = macAddress(board);
    kv_PCIDevice record = recordOf(board);
    EXPECT_EQ(kv_mapMemory(&record, 0), nullptr);
    EXPECT_EQ(log_.take().back(), error(kRefused));
    EXPECT_EQ(record.VirtAddress[0], 0U);

    ASSERT_EQ(kv_pci_unbindDriver(&record), 0);
    const Registers registers = map(record, 0);
    ASSERT_NE(registers, nullptr);
    constexpr std::size_t kReceiveAddress = 0x5400 / sizeof(uint32_t);
    EXPECT_EQ(macAddress(registers[kReceiveAddress], registers[kReceiveAddress + 1]), mac);
    EXPECT_EQ(kv_mapMemory(&record, 5), nullptr) << "there is no such BAR";
    ASSERT_EQ(kv_pci_bindDriver(&record, "e1000e"), 0);
    EXPECT_EQ(board.driver(), "e1000e");
}

class Configuration : public BarMapping {
 protected:
    enum Offset : unsigned { kCommand = 0x04, kBar0 = 0x10, kFirstCapability = 0x34, kInterruptLine = 0x3c };

    /** Resets a function by its own configuration space: the kernel does not know. */
    static void resetFunction(const KernelFunction& board) {
        constexpr unsigned kExpress = 0x10;
        constexpr unsigned kDeviceControl = 0x08;
        constexpr unsigned kInitiate = 0x8000;
        unsigned capability = board.config16(kFirstCapability) & 0xFF;
        while (capability != 0 && (board.config16(capability) & 0xFF) != kExpress) {
            capability = board.config16(capability) >> 8;
        }
        ASSERT_NE(capability, 0U) << board << " has no PCI Express capability";
        const unsigned control = capability + kDeviceControl;
        board.setConfig16(control, static_cast<uint16_t>(board.config16(control) | kInitiate));
        ::usleep(100'000);
    }

    static std::string header(const KernelFunction& board) {
        std::string words;
        for (unsigned offset = 0; offset < 0x40; offset += 2) {
            words += formatString("%04x ", board.config16(offset));
        }
        return words;
    }
};

TEST_F(Configuration, IsRestoredAfterAResetOfTheFunction) {
    constexpr std::size_t kVersion = 0x08 / sizeof(uint32_t);
    const KernelFunction board = KernelFunction::all(Board::kResettable).at(0);
    kv_PCIDevice record = recordOf(board);
    const Registers registers = map(record, 0);
    ASSERT_NE(registers, nullptr);
    const uint32_t version = registers[kVersion];
    board.setConfig16(kCommand, 0x0406);
    board.setConfig16(kInterruptLine, 0x012A);
    const std::string before = header(board);
    std::array<uint32_t, 8> saved{};
    kvPCI_backupPCIConfig(&record, saved.data());
    EXPECT_EQ((saved[1] * (uint64_t{1} << 32)) | (saved[0] & ~0xFU), board.resource(0).first);
    EXPECT_EQ(saved[7], 0x0406U);

    ASSERT_NO_FATAL_FAILURE(resetFunction(board));
    ASSERT_NE(header(board), before);
    ASSERT_EQ(board.config16(kCommand), 0U);
    EXPECT_EQ(registers[kVersion], ~0U) << "nobody answers there";

    kvPCI_restorePCIConfig(&record, saved.data());
    EXPECT_EQ(header(board), before);
    EXPECT_EQ(registers[kVersion], version);
    (void)log_.take();

    kv_PCIDevice absent = record;
    absent.slot = 31;
    kvPCI_restorePCIConfig(&absent, saved.data());
    EXPECT_THAT(log_.take(), ElementsAre(error(formatString(
                                 "PCI header restore: device not found (bus: %u / slot: 31)", absent.bus))));
    ASSERT_EQ(kv::test::writeText(board.path("enable"), "0"), 0);
}

}  // namespace
