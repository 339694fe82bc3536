#include "layout/config_space.h"

#include <cstring>

#include <gtest/gtest.h>

#include "kvsim/machine.h"

namespace {

using kvsim::BarSpace;
using kvsim::Machine;

/** The configuration space of the n-th function that was described. */
class Config {
 public:
    Config(const Machine& machine, std::size_t index)
        : bytes_(kvsim::configSpace(machine.description().pciFunctions.at(index),
                                    kvsim::PciTopology(machine.description().pciFunctions))) {}

    [[nodiscard]] std::size_t size() const { return bytes_.size(); }
    [[nodiscard]] unsigned byte(std::size_t offset) const { return read<std::uint8_t>(offset); }
    [[nodiscard]] unsigned word(std::size_t offset) const { return read<std::uint16_t>(offset); }
    [[nodiscard]] unsigned dword(std::size_t offset) const { return read<std::uint32_t>(offset); }

 private:
    template <typename Value>
    [[nodiscard]] Value read(std::size_t offset) const {
        Value value{};
        std::memcpy(&value, bytes_.data() + offset, sizeof(value));
        return value;
    }

    std::string bytes_;
};

const kvsim::PciFunction kBoard = {.slot = 3, .vendor = 0x1b5a, .device = 0x0a18, .revision = 7, .irq = 48};

TEST(ConfigSpace, HoldsTheIdentityOfADevice) {
    Machine machine;
    machine.addPciFunction(kBoard).subsystem(0x1b5b, 2);
    const Config config(machine, 0);

    EXPECT_EQ(config.size(), 256U);
    EXPECT_EQ(config.dword(0x00), 0x0a181b5aU);
    EXPECT_EQ(config.dword(0x08), 0x11800007U);
    EXPECT_EQ(config.byte(0x0E), 0x00U);
    EXPECT_EQ(config.dword(0x2C), 0x00021b5bU);
    EXPECT_EQ(config.word(0x3C), 0x0130U) << "line 48, pin A";
    EXPECT_EQ(config.dword(0x04), 0U) << "nobody has enabled it, and it has no capabilities";
}

TEST(ConfigSpace, EnablesWhatADriverHolds) {
    Machine machine;
    machine.addPciFunction(kBoard).driver("uio_kelvaro").bar(0, 0xA0000000, 0x1000);
    machine.addPciFunction(kBoard).driver("uio_kelvaro").bar(0, 0x1000, 0x40, BarSpace::Io);
    machine.addPciFunction(kBoard).driver("uio_kelvaro").enabled(false);
    machine.addPciFunction(kBoard).enabled(true);
    EXPECT_EQ(Config(machine, 0).word(0x04), 0x0006U);
    EXPECT_EQ(Config(machine, 1).word(0x04), 0x0007U);
    EXPECT_EQ(Config(machine, 2).word(0x04), 0x0000U);
    EXPECT_EQ(Config(machine, 3).word(0x04), 0x0006U);
}

TEST(ConfigSpace, EncodesEveryKindOfBar) {
    Machine machine;
    machine.addPciFunction(kBoard)
        .bar(0, 0xA0000000, 0x1000)
        .bar(1, 0xFFF00000, 0x100000, BarSpace::PrefetchableMemory)
        .bar(2, 0x4412300000, 0x100000, BarSpace::PrefetchableMemory)
        .bar(4, 0x100000000, 0x1000);
    Machine io;
    io.addPciFunction(kBoard).bar(5, 0xC040, 0x40, BarSpace::Io);

    const Config config(machine, 0);
    EXPECT_EQ(config.dword(0x10), 0xA0000000U);
    EXPECT_EQ(config.dword(0x14), 0xFFF00008U) << "ends just below 4 GiB, so 32 bits do";
    EXPECT_EQ(config.dword(0x18), 0x1230000CU);
    EXPECT_EQ(config.dword(0x1C), 0x44U);
    EXPECT_EQ(config.dword(0x20), 0x00000004U);
    EXPECT_EQ(Config(io, 0).dword(0x24), 0xC041U);
}

TEST(ConfigSpace, MarksTheFunctionsOfASharedSlot) {
    Machine machine;
    machine.addPciFunction({.slot = 3, .function = 0, .vendor = 1});
    machine.addPciFunction({.slot = 3, .function = 2, .vendor = 1});
    machine.addPciFunction({.slot = 4, .function = 3, .vendor = 1});
    EXPECT_EQ(Config(machine, 0).byte(0x0E), 0x80U);
    EXPECT_EQ(Config(machine, 1).byte(0x0E), 0x80U);
    EXPECT_EQ(Config(machine, 2).byte(0x0E), 0x00U);
}

TEST(ConfigSpace, GivesABridgeTheBusesAndAddressesBehindIt) {
    Machine machine;
    machine.addBridge({.slot = 1}, 2);
    machine.addBridge({.bus = 2, .slot = 0}, 3);
    machine.addBridge({.bus = 2, .slot = 1}, 7);
    machine.addPciFunction({.bus = 3, .vendor = 1})
        .bar(0, 0xA0000000, 0x1000)
        .bar(1, 0xC040, 0x40, BarSpace::Io);
    machine.addPciFunction({.bus = 7, .vendor = 1})
        .bar(0, 0xA0300000, 0x1000)
        .bar(2, 0x4400000000, 0x200000, BarSpace::PrefetchableMemory);

    const Config upper(machine, 0);
    EXPECT_EQ(upper.byte(0x0E), 0x01U);
    EXPECT_EQ(upper.dword(0x18), 0x00070200U) << "primary 0, secondary 2, subordinate 7";
    EXPECT_EQ(upper.word(0x1C), 0xC1C1U) << "I/O 0xC000 to 0xCFFF";
    EXPECT_EQ(upper.dword(0x20), 0xA030A000U);
    EXPECT_EQ(upper.dword(0x24), 0x00110001U);
    EXPECT_EQ(upper.dword(0x28), 0x44U);
    EXPECT_EQ(upper.dword(0x2C), 0x44U);

    const Config lower(machine, 1);
    EXPECT_EQ(lower.dword(0x18), 0x00030302U);
    EXPECT_EQ(lower.dword(0x20), 0xA000A000U);
    EXPECT_GT(lower.word(0x24) & 0xFFF0U, lower.word(0x26) & 0xFFF0U) << "a closed window: base above limit";
    EXPECT_GT(Config(machine, 2).byte(0x1C) & 0xF0U, Config(machine, 2).byte(0x1D) & 0xF0U);
}

TEST(ConfigSpace, LinksTheExpressCapability) {
    Machine machine;
    machine.addBridge({.slot = 1}, 2).expressCapability(2, 8);            // root port
    machine.addBridge({.bus = 2, .slot = 0}, 3).expressCapability(2, 8);  // a switch: upstream port
    machine.addBridge({.bus = 3, .slot = 1}, 4).expressCapability(2, 4);  // and one of its downstream ports
    machine.addPciFunction({.bus = 4, .vendor = 1}).expressCapability(1, 4);

    const unsigned ports[] = {4, 5, 6, 0};
    for (std::size_t i = 0; i < std::size(ports); ++i) {
        const Config config(machine, i);
        EXPECT_EQ(config.size(), 4096U);
        EXPECT_EQ(config.word(0x06) & 0x10U, 0x10U) << "the status tells of a capability list";
        EXPECT_EQ(config.byte(config.byte(0x34)), 0x10U);
        EXPECT_EQ(config.byte(config.byte(0x34) + 1), 0U) << "the last one";
        EXPECT_EQ(config.word(config.byte(0x34) + 2) >> 4 & 0xFU, ports[i]);
    }
    const Config endpoint(machine, 3);
    EXPECT_EQ(endpoint.word(0x42) & 0xFU, 1U);
    EXPECT_EQ(endpoint.dword(0x4C) >> 4 & 0x3FU, 4U);
    EXPECT_EQ(endpoint.word(0x52) >> 4 & 0x3FU, 4U);
}

}  // namespace
