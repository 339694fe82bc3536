#include <cmath>
#include <functional>

#include <gtest/gtest.h>

#include "kvsim/machine.h"

namespace {

using kvsim::BarSpace;
using kvsim::Machine;
using kvsim::UioMap;

struct Impossible {
    const char* name;
    std::function<void(Machine&)> describe;
    const char* reason;
};

void PrintTo(const Impossible& machine, std::ostream* out) {
    *out << machine.name;
}

class ImpossibleMachine : public testing::TestWithParam<Impossible> {};

TEST_P(ImpossibleMachine, IsRefusedWithTheReason) {
    Machine machine;
    GetParam().describe(machine);
    try {
        machine.enter();  // refuses before it changes anything
        FAIL() << "accepted";
    } catch (const kvsim::DescriptionError& error) {
        EXPECT_STREQ(error.what(), GetParam().reason);
    }
}

kvsim::PciFunctionBuilder board(Machine& machine, std::uint8_t slot = 1) {
    return machine.addPciFunction({.slot = slot, .vendor = 0x1b5a, .device = 1});
}

void analogBoard(Machine& machine, std::vector<kvsim::Plant> plants) {
    board(machine).bar(0, 0x10000, 0x1000).board("analog-io", std::move(plants));
}

void axi(Machine& machine, const char* name, std::vector<UioMap> maps = {}) {
    machine.addAxiDevice({.name = name, .maps = std::move(maps)});
}

const Impossible kImpossible[] = {
    {"NoCpus", [](Machine& m) { m.cpus(0); }, "a machine has 1 to 256 CPUs, not 0"},
    {"AbsentVendor", [](Machine& m) { m.addPciFunction({.slot = 1, .vendor = 0xFFFF}); },
     "the vendor 0xffff is not in the range 0x1 to 0xfffe"},
    {"SlotTooHigh", [](Machine& m) { board(m, 32); }, "the slot 0x20 is not in the range 0x0 to 0x1f"},
    {"NoBridge", [](Machine& m) { m.addPciFunction({.bus = 3, .vendor = 1}); }, "no bridge leads to bus 3"},
    {"TwoBridgesToOneBus", [](Machine& m) { m.addBridge({.slot = 1}, 2), m.addBridge({.slot = 2}, 2); },
     "two bridges lead to bus 2"},
    {"BridgeInACircle", [](Machine& m) { m.addBridge({.bus = 2, .slot = 1}, 1), m.addBridge({.bus = 1}, 2); },
     "a bridge on bus 2 can't lead to bus 1: numbers grow with the distance from bus 0"},
    {"OddSize", [](Machine& m) { board(m).bar(0, 0x10000, 0x1800); },
     "the size 0x1800 of BAR 0 is not a power of two of at least 16"},
    {"TinySize", [](Machine& m) { board(m).bar(0, 0x10000, 8); },
     "the size 0x8 of BAR 0 is not a power of two of at least 16"},
    {"Misaligned", [](Machine& m) { board(m).bar(0, 0x11000, 0x2000); },
     "BAR 0 at 0x11000 is not aligned to 0x2000, as its size requires"},
    {"MisalignedSmallOne", [](Machine& m) { board(m).bar(0, 0x11008, 0x100); },
     "BAR 0 at 0x11008 is not aligned to 0x10, as its size requires"},
    {"IoBeyondItsSpace", [](Machine& m) { board(m).bar(0, 0x10000, 0x20, BarSpace::Io); },
     "BAR 0 at 0x10000, size 0x20, does not lie between 1 and 0x10000"},
    {"AddressWrapsAround", [](Machine& m) { board(m).bar(0, 0xFFFFFFFFFFFFF000, 0x1000); },
     "BAR 0 at 0xfffffffffffff000, size 0x1000, does not lie between 1 and 0x10000000000000"},
    {"SeventhBar", [](Machine& m) { board(m).bar(6, 0x1000, 0x1000); }, "there is no BAR 6: a device has 6"},
    {"ThirdBarOfABridge", [](Machine& m) { m.addBridge({.slot = 1}, 2).bar(2, 0x1000, 0x1000); },
     "there is no BAR 2: a bridge has 2"},
    {"UpperHalfTaken", [](Machine& m) { board(m).bar(1, 0x100001000, 0x1000).bar(2, 0x2000, 0x1000); },
     "BAR 2 is taken already"},
    {"NoUpperHalf", [](Machine& m) { board(m).bar(5, 0x100001000, 0x1000); },
     "there is no BAR 6 for the upper half of a 64-bit address: a device has 6"},
    {"OverlapAcrossBoards",
     [](Machine& m) { board(m, 1).bar(0, 0x20000, 0x10000), board(m, 2).bar(0, 0x2F000, 0x1000); },
     "BAR 0 of 0000:00:02.0 at 0x2f000 overlaps BAR 0 of 0000:00:01.0 at 0x20000"},
    {"OverlapFromBelow",
     [](Machine& m) { board(m, 1).bar(0, 0x2F000, 0x1000), board(m, 2).bar(0, 0x20000, 0x10000); },
     "BAR 0 of 0000:00:02.0 at 0x20000 overlaps BAR 0 of 0000:00:01.0 at 0x2f000"},
    {"WindowsOfABridgeInOneAnother",
     [](Machine& m) {
         m.addBridge({.slot = 1}, 2);
         m.addPciFunction({.bus = 2, .vendor = 1})
             .bar(0, 0x10000000, 0x1000)
             .bar(1, 0x10100000, 0x1000, BarSpace::PrefetchableMemory)
             .bar(2, 0x10200000, 0x1000);
     },
     "the prefetchable window of 0000:00:01.0 at 0x10100000 overlaps the memory window of 0000:00:01.0 at "
     "0x10000000"},
    {"WindowOverABoardInFrontOfTheBridge",
     [](Machine& m) {
         board(m, 1).bar(0, 0x10000000, 0x1000);
         m.addBridge({.slot = 2}, 2);
         m.addPciFunction({.bus = 2, .vendor = 1}).bar(0, 0x10080000, 0x1000);
     },
     "the memory window of 0000:00:02.0 at 0x10000000 overlaps BAR 0 of 0000:00:01.0 at 0x10000000"},
    {"AxiDeviceTwice", [](Machine& m) { axi(m, "pwm"), axi(m, "pwm"); },
     "there are two AXI devices named pwm"},
    {"AxiDeviceOfTwoWords", [](Machine& m) { axi(m, "pwm 2"); },
     "\"pwm 2\" is not a single word, as the name of an AXI device must be"},
    {"AxiDeviceThatIsAPath", [](Machine& m) { axi(m, "../pwm"); },
     "\"../pwm\" can't be the name of an AXI device"},
    {"IrqTooHigh", [](Machine& m) { m.addAxiDevice({.name = "pwm", .irq = 1024, .maps = {}}); },
     "the irq 1024 of pwm is above 1023"},
    {"SixMaps", [](Machine& m) { axi(m, "pwm", std::vector<UioMap>(6)); },
     "pwm has 6 maps: UIO shows no more than 5"},
    {"MapOfAPart", [](Machine& m) { axi(m, "pwm", {{.address = 0x10000, .sizeBytes = 0x100}}); },
     "the size 0x100 of map 0 of pwm is not a multiple of 0x1000"},
    {"MapAtAnOddOffset",
     [](Machine& m) { axi(m, "pwm", {{.address = 0x10000, .sizeBytes = 0x1000, .offset = 0x10}}); },
     "the offset 0x10 of map 0 of pwm is not a multiple of 0x1000"},
    {"MapWithARegisterOutside",
     [](Machine& m) {
         axi(m, "pwm", {{.address = 0x10000, .sizeBytes = 0x1000, .registers = {{0x1000, 1}}}});
     },
     "the register offset 0x1000 is not a multiple of 4 below the map's size 0x1000"},
    {"MapsThatOverlapInTheDeviceFile",
     [](Machine& m) {
         axi(m, "pwm",
             {{.address = 0x10000, .sizeBytes = 0x2000},
              {.address = 0x20000, .sizeBytes = 0x1000, .offset = 0x1000}});
     },
     "map 1 of pwm at offset 0x1000 overlaps map 0 of pwm at offset 0x0"},
    {"MapOverABar",
     [](Machine& m) {
         board(m).bar(0, 0x20000, 0x10000);
         axi(m, "pwm", {{.address = 0x2F000, .sizeBytes = 0x1000}});
     },
     "map 0 of pwm at 0x2f000 overlaps BAR 0 of 0000:00:01.0 at 0x20000"},
    {"EmptyDmaMemory", [](Machine& m) { m.dmaMemory(0x10000, 0); }, "the DMA memory is empty"},
    {"DmaMemoryOfAPart", [](Machine& m) { m.dmaMemory(0x10800, 0x1000); },
     "the address 0x10800 of the DMA memory is not a multiple of 0x1000"},
    {"DmaMemoryWrapsAround", [](Machine& m) { m.dmaMemory(0xFFFFFFFFFFFFF000, 0x2000); },
     "the DMA memory at 0xfffffffffffff000, size 0x2000, does not lie between 1 and 0x10000000000000"},
    {"CachedBufferInTheDmaMemory",
     [](Machine& m) { m.dmaMemory(0x10000, 0x10000).cachedBuffer(0x1F000, 0x2000); },
     "the cached buffer at 0x1f000 overlaps the DMA memory at 0x10000"},
    {"InterfaceTwice",
     [](Machine& m) { board(m, 1).networkInterface("eth0"), board(m, 2).networkInterface("eth0"); },
     "there are two net devices named eth0"},
    {"PlatformDeviceOutside", [](Machine& m) { m.addPlatformDevice({.name = "../escape"}); },
     "\"..\" can't be the name of a platform device"},
    {"FileOutside", [](Machine& m) { m.addFile("/sys/../etc/passwd", ""); },
     "\"/sys/../etc/passwd\" is not a path in the folders of the machine"},
    {"FileInWhatStaysTheDesks", [](Machine& m) { m.addFile("/run/user/1000/x", ""); },
     "\"/run/user/1000/x\" is not a path in the folders of the machine"},
    {"UnknownBoard", [](Machine& m) { board(m).board("analog-oi"); },
     "there is no board \"analog-oi\", only analog-io"},
    {"AnalogBoardWithoutRegisters", [](Machine& m) { board(m).board("analog-io").bar(0, 0x10000, 0x800); },
     "an analog board has its registers in BAR 0, which is missing or smaller than 4096 bytes of memory"},
    {"PlantsOnNothing", [](Machine& m) { board(m).board("", {kvsim::Plant{}}); },
     "plants are connected to a board \"analog-io\""},
    {"NinthOutput", [](Machine& m) { analogBoard(m, {{.output = 8}}); },
     "an analog board has outputs 0 to 7, not 8"},
    {"NinthInput", [](Machine& m) { analogBoard(m, {{.input = 8}}); },
     "an analog board has inputs 0 to 7, not 8"},
    {"TwoPlantsOnOneInput",
     [](Machine& m) {
         analogBoard(m, {{.input = 3}, {.output = 1, .input = 3}});
     },
     "two plants lead to input 3"},
    {"PlantWithoutInertia", [](Machine& m) { analogBoard(m, {{.timeConstantSeconds = 0}}); },
     "the time constant 0 s of a plant is not above 0 and up to 1e+06 s"},
    {"GainThatIsNoNumber", [](Machine& m) { analogBoard(m, {{.gain = NAN}}); },
     "the gain nan of a plant is not in the range -1000 to 1000"},
};

INSTANTIATE_TEST_SUITE_P(All, ImpossibleMachine, testing::ValuesIn(kImpossible),
                         [](const auto& instance) { return instance.param.name; });

TEST(Validate, AcceptsNeighboursAndOneAddressInBothSpaces) {
    Machine machine;
    board(machine).bar(0, 0x2000, 0x1000).bar(1, 0x3000, 0x1000).bar(2, 0x4100, 0x100).bar(3, 0x4200, 0x10);
    board(machine, 2).bar(0, 0x2000, 0x100, BarSpace::Io);
    EXPECT_NO_THROW(kvsim::validate(machine.description()));
}

}  // namespace
