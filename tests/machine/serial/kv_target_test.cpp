#include <array>
#include <stdexcept>

#include "serial_machine.h"

using kvsim::Machine;
using testing::IsEmpty;

namespace {

constexpr std::string_view kUntouched = "untouched by failures";

class SerialDiscovery : public kv::test::SerialMachine {
 protected:
    void SetUp() override { reset(); }
    void TearDown() override { EXPECT_THAT(log_.take(), IsEmpty()); }

    void reset() { std::ranges::copy(kUntouched, name_.begin()); }
    [[nodiscard]] bool isUntouched() const { return std::string_view(name_.data()) == kUntouched; }

    int byPort(uint32_t address, size_t length = 64) {
        return kv_findSerialDeviceByPort(address, name_.data(), length);
    }
    int byPci(uint32_t bus, uint32_t slot, int port, size_t length = 64) {
        kv_PCIDevice board{};
        board.bus = bus;
        board.slot = slot;
        return kv_findSerialDeviceByPci(&board, port, name_.data(), length);
    }

    kvsim::PciFunctionBuilder addCard(uint8_t slot) {
        return machine_.addPciFunction({.bus = 0x1a, .slot = slot, .vendor = 0x1b5a, .device = 0x0500})
            .driver("serial");
    }

    std::array<char, 64> name_{};
};

TEST_F(SerialDiscovery, FindsAPortByTheAddressOfItsUart) {
    addPort("ttyS0", "0x3F8", std::nullopt);
    addPort("ttyPS0", "0xFF000000", std::nullopt);
    addPort("ttyPS1", "0xff010000", std::nullopt);  // lower case is another text
    addPort("ttyPS2", "0x00000ABC", std::nullopt);
    ENTER_MACHINE(machine_);
    for (const uint32_t absent : {0xFF010000U, 0xABCU, 0U, 0xFF00U}) {
        EXPECT_EQ(byPort(absent), -1) << absent;
    }
    EXPECT_EQ(byPort(0xFF000000, 11), -1);
    EXPECT_EQ(byPort(0xFF000000, 0), -1);
    EXPECT_TRUE(isUntouched());
    EXPECT_EQ(byPort(0xFF000000, 12), 0);
    EXPECT_STREQ(name_.data(), "/dev/ttyPS0");
    EXPECT_EQ(byPort(0x3f8), 0);
    EXPECT_STREQ(name_.data(), "/dev/ttyS0");
}

TEST_F(SerialDiscovery, OrdersThePortsOfACardByTheirNumbers) {
    machine_.addBridge({.slot = 1}, 0x1a);
    kvsim::PciFunctionBuilder card = addCard(0x0b);
    for (const int number : {11, 4, 15, 104, 12, 5, 9, 10, 14, 13, 8, 6, 7}) {
        card.serialPort("ttyS" + std::to_string(number));
    }
    addCard(0x0c).serialPort("ttyS3").serialPort("ttyS20");
    addPort("ttyPS0", "0xFF000000", std::nullopt);
    ENTER_MACHINE(machine_);
    const auto before = openFiles();
    for (int port = 0; port < 12; ++port) {
        ASSERT_EQ(byPci(0x1a, 0x0b, port), 0);
        EXPECT_EQ(name_.data(), "/dev/ttyS" + std::to_string(port + 4));
    }
    EXPECT_EQ(byPci(0x1a, 0x0b, 12, 13), 0);  // with its terminator exactly the limit
    EXPECT_STREQ(name_.data(), "/dev/ttyS104");
    EXPECT_EQ(openFiles(), before);
}

TEST_F(SerialDiscovery, TellsWhyThereIsNoPort) {
    machine_.addBridge({.slot = 1}, 0x1a);
    addCard(1).serialPort("ttyS1").serialPort("ttyS2");
    addCard(2);
    addCard(3).serialPort("ttyS99999999999").serialPort("ttyS3");
    ENTER_MACHINE(machine_);
    const auto before = openFiles();
    EXPECT_EQ(byPci(0x1a, 9, 0), -1);
    EXPECT_EQ(byPci(0x1a, 2, 0), -3);
    for (const int outside : {2, 1000, -1, INT_MIN}) {
        EXPECT_EQ(byPci(0x1a, 1, outside), -3) << outside;
    }
    EXPECT_EQ(byPci(0x1a, 1, 0, 10), -5);
    EXPECT_THROW(byPci(0x1a, 3, 0), std::out_of_range);
    Machine::write("/sys/class/tty/ttyS2/uevent", "MAJOR=4\nMINOR=65\n");
    EXPECT_EQ(byPci(0x1a, 1, 0), -4);
    EXPECT_TRUE(isUntouched());
    EXPECT_EQ(openFiles(), before);
}

}  // namespace
