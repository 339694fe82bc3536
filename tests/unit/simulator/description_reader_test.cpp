#include "kvsim/description_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_temporary_folder.h"

namespace {

using kv::test::TemporaryFolder;
using kvsim::readDescription;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Pair;

std::string refusalOf(const std::filesystem::path& file, bool withHints = false) {
    std::vector<kvsim::Hint> hints;
    try {
        withHints ? readDescription(file, hints) : readDescription(file);
    } catch (const kvsim::DescriptionError& error) {
        return error.what();
    }
    return "accepted";
}

struct BadDescription {
    const char* name;
    const char* text;
    const char* refusal;
};

void PrintTo(const BadDescription& bad, std::ostream* out) {
    *out << bad.name;
}

class DescriptionReaderRefusal : public testing::TestWithParam<BadDescription> {};

TEST_P(DescriptionReaderRefusal, TellsPlaceAndReason) {
    const TemporaryFolder folder;
    const auto file = folder.write("bad.yaml", GetParam().text);
    EXPECT_EQ(refusalOf(file), file.string() + ":" + GetParam().refusal);
}

constexpr BadDescription kBadDescriptions[] = {
    {"Empty", "", " the file is empty"},
    {"OnlyAComment", "# nothing\n", " the file is empty"},
    {"InvalidYaml", "summary: [x\ncpus: 4\n", "2:5: invalid YAML: end of sequence flow not found"},
    {"TwoDocuments", "summary: x\n---\nsummary: y\n", "3:1: the file holds more than one document"},
    {"NoMap", "just words\n", "1:1: a machine must be a map of keys and values"},
    {"MissingKey", "cpus: 4\n", "1:1: a machine lacks the key \"summary\""},
    {"MistypedKey", "summary: x\ncpu: 4\n", "2:1: a machine has no key \"cpu\": did you mean \"cpus\"?"},
    {"UnknownKey", "summary: x\nfiles:\n  - {path: /sys/x, text: y, colour: red}\n",
     "3:29: a file has no key \"colour\", only path, text"},
    {"KeyTwice", "summary: x\ncpus: 4\ncpus: 2\n", "3:1: \"cpus\" is given twice"},
    {"ListForText", "summary: [x]\n", "1:10: summary must be a single value"},
    {"TextForList", "summary: x\npci: none\n", "2:6: pci must be a list"},
    {"NoNumber", "summary: x\ncpus: 4x\n", "2:7: cpus: \"4x\" is not a number"},
    {"NoCpus", "summary: x\ncpus: 0\n", "2:7: cpus: 0 is not in the range 1 to 256"},
    {"HugeNumber", "summary: x\ntemperature: 99999999999999999999\n",
     "2:14: temperature: 99999999999999999999 is not in the range -2147483648 to 2147483647"},
    {"NegativeHex", "summary: x\ncpus: 0x-4\n", "2:7: cpus: \"0x-4\" is not a number"},
    {"BadIdentity", "summary: x\npci:\n  - {slot: 1, id: 8086:15}\n",
     "3:19: id: \"8086:15\" is not a pair of four hexadecimal digits each, as in 8086:1533"},
    {"BadSwitch", "summary: x\npci:\n  - {slot: 1, id: 8086:1533, enabled: maybe}\n",
     "3:39: enabled: \"maybe\" is neither true nor false"},
    {"BadSpace",
     "summary: x\npci:\n  - {slot: 1, id: 8086:1533, bars: [{index: 0, address: 4096, size: 16, space: "
     "rom}]}\n",
     "3:80: space: \"rom\" is none of memory, prefetchable, io"},
    {"DuplicateAddress", "summary: x\npci:\n  - {slot: 1, id: 8086:1533}\n  - {slot: 1, id: 8086:1539}\n",
     "4:5: 0000:00:01.0 is described twice"},
    {"BridgeToNowhere", "summary: x\npci:\n  - slot: 1\n    id: 8086:1533\n    behind: []\n",
     "5:13: what is behind this bridge needs its bus number: leads-to is missing"},
    {"BusNumberNotGrowing",
     "summary: x\npci:\n  - slot: 1\n    id: 10b5:8605\n    leads-to: 3\n    behind:\n"
     "      - {slot: 0, id: 10b5:8605, leads-to: 3}\n",
     "7:44: leads-to: 3 is not in the range 4 to 255"},
    {"ListThatHoldsItself",
     "summary: x\npci: &loop\n  - {slot: 1, id: 10b5:8605, leads-to: 1, behind: *loop}\n",
     "3:40: leads-to: 1 is not in the range 2 to 255"},
    {"OverlappingBars",
     "summary: x\npci:\n  - slot: 1\n    id: 1b5a:0001\n    bars:\n"
     "      - {index: 0, address: 0xA0000000, size: 0x2000}\n"
     "      - {index: 1, address: 0xA0001000, size: 0x1000}\n",
     "7:9: BAR 1 of 0000:00:01.0 at 0xa0001000 overlaps BAR 0 of 0000:00:01.0 at 0xa0000000"},
    {"RegisterOutsideItsBar",
     "summary: x\npci:\n  - slot: 1\n    id: 1b5a:0001\n    bars:\n"
     "      - {index: 0, address: 0xA0000000, size: 16, registers: {0x10: 1}}\n",
     "6:9: the register offset 0x10 is not a multiple of 4 below the BAR's size 0x10"},
    {"FileOnTheDesk", "summary: x\nfiles:\n  - {path: /etc/passwd, text: y}\n",
     "3:5: \"/etc/passwd\" is not a path in the folders of the machine"},
    {"NoDecimal",
     "summary: x\npci:\n  - slot: 1\n    id: 1b5a:0001\n    plants:\n"
     "      - {output: 0, input: 0, time-constant: 0.05s}\n",
     "6:46: time-constant: \"0.05s\" is not a number"},
    {"EndlessDecimal",
     "summary: x\npci:\n  - slot: 1\n    id: 1b5a:0001\n    plants:\n"
     "      - {output: 0, input: 0, gain: inf}\n",
     "6:37: gain: \"inf\" is not a number"},
    {"AxiDeviceWithoutAName", "summary: x\naxi:\n  - {irq: 3}\n",
     "3:5: an AXI device lacks the key \"name\""},
    {"MapTwiceInMemory",
     "summary: x\naxi:\n  - name: a\n    maps:\n      - {address: 0x1000, size: 0x1000}\n"
     "      - {address: 0x1000, size: 0x1000}\n",
     "6:9: map 1 of a at 0x1000 overlaps map 0 of a at 0x1000"},
    {"DmaMemoryWithoutASize", "summary: x\ndma-memory: {address: 0x1000}\n",
     "2:13: dma-memory lacks the key \"size\""},
    {"CachedBufferOfAPart", "summary: x\ncached-buffer: {address: 0x1000, size: 100}\n",
     "2:16: the size 0x64 of the cached buffer is not a multiple of 0x1000"},
    {"DriverThatIsAPath", "summary: x\npci-drivers: [a/b]\n", "2:15: \"a/b\" can't be the name of a driver"},
    {"DriverWithABadIdentity", "summary: x\npci-drivers:\n  - {name: a, ids: [8086]}\n",
     "3:21: ids: \"8086\" is not a pair of four hexadecimal digits each, as in 8086:1533"},
    {"OpenDoubleQuote", "summary: x\nserial-number: \"1000\ncpus: 2\n",
     "2:16: the quote that begins here is not closed"},
    {"OpenDoubleQuoteThatALaterOneEnds",
     "summary: x\nfiles:\n  - path: \"/run/x\n    text: q\n  - path: /run/y\n    text: \"q\"\n",
     "3:11: the quote that begins here is not closed"},
    {"OpenSingleQuoteThatALaterOneEnds",
     "summary: x\nfiles:\n  - {path: '/run/''x, text: q}\n  - {path: '/run/y', text: q}\n",
     "3:12: the quote that begins here is not closed"},
    {"ErrorBehindAClosedQuote", "summary: \"x\"\nfiles: '[\n ]'\ngpio: [\ncpus: 4\n",
     "6:1: invalid YAML: end of sequence flow not found"},
    {"OpenSingleQuoteAtTheEnd", "summary: 'x", "1:10: the quote that begins here is not closed"},
    {"DriverTwice", "summary: x\npci-drivers: [a, {name: a}]\n", "2:18: there are two PCI drivers named a"},
};

INSTANTIATE_TEST_SUITE_P(Bad, DescriptionReaderRefusal, testing::ValuesIn(kBadDescriptions),
                         [](const auto& instance) { return instance.param.name; });

TEST(DescriptionReader, ListsAllMistakesInTheirOrder) {
    const TemporaryFolder folder;
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"cpu: 4\nserial-number: [1]\npci:\n  - {slot: 1x, id: 8086, irq: 999, bars: [{index: 0}, {size: "
         "4}]}\n"
         "  - {slot: 2, id: 8086:1533, express: {wide: 1}, devices: [{class: net}]}\n",
         {":1:1: a machine has no key \"cpu\": did you mean \"cpus\"?",
          ":1:1: a machine lacks the key \"summary\"", ":2:16: serial-number must be a single value",
          ":4:12: slot: \"1x\" is not a number",
          ":4:20: id: \"8086\" is not a pair of four hexadecimal digits each, as in 8086:1533",
          ":4:31: irq: 999 is not in the range 0 to 255", ":4:43: a BAR lacks the key \"address\"",
          ":4:43: a BAR lacks the key \"size\"", ":4:55: a BAR lacks the key \"address\"",
          ":4:55: a BAR lacks the key \"index\"",
          ":5:40: express has no key \"wide\": did you mean \"width\"?",
          ":5:60: a device lacks the key \"name\""}},
        {"summary: x\nfiles:\n  - {path: /etc/a, text: y}\n  - {path: /etc/b, text: y}\naxi: [{name: a "
         "b}]\npci:\n"
         "  - {slot: 40, id: 1b5a:0001, bars: [{index: 9, address: 4096, size: 16}, {index: 1, address: 1, "
         "size: 3}]}\n"
         "  - {slot: 1, id: 1b5a:0001, board: none, devices: [{class: a/b, name: c}]}\n",
         {":3:5: \"/etc/a\" is not a path in the folders of the machine",
          ":4:5: \"/etc/b\" is not a path in the folders of the machine",
          ":5:7: \"a b\" is not a single word, as the name of an AXI device must be",
          ":7:5: the slot 0x28 is not in the range 0x0 to 0x1f", ":7:38: there is no BAR 9: a device has 6",
          ":7:75: the size 0x3 of BAR 1 is not a power of two of at least 16",
          ":8:5: there is no board \"none\", only analog-io",
          ":8:53: \"a/b\" can't be the name of a device class"}},
        {"summary: x\nfiles: [{path: /etc/a, text: y}, {path: /etc/b, txt: y}]\ndma-memory: {address: 4096, "
         "size: "
         "1x}\n"
         "pci:\n"
         "  - {slot: 1, id: 1b5a:0001, driver: uio_kelvaro, bars: [{index: 0, address: 0x2000, size: "
         "4096}]}\n"
         "  - {slot: 1x, id: 1b5a:0001}\n  - {slot: 0, id: 1b5a:0001, driver: somebodys}\n"
         "  - {slot: 2, id: 1b5a:0001, leads-to: 1, irq: 1x, behind: [{slot: 0, id: 1b5a:0001}]}\n"
         "  - {slot: 3, id: 1b5a:0001, leads-to: 2, behind: [{slot: 0, id: 1b5a:0001, bars: [{}]}]}\n"
         "  - {slot: 3, id: 1b5a:0001}\n"
         "axi: [{name: a, maps: [{address: 0x2000, size: 4096}]}]\npci-drivers: [{nam: somebodys}]\n",
         {":2:9: \"/etc/a\" is not a path in the folders of the machine",
          ":2:34: a file lacks the key \"text\"", ":2:49: a file has no key \"txt\": did you mean \"text\"?",
          ":3:35: size: \"1x\" is not a number",
          ":5:5: hint: uio_kelvaro makes no /dev/uioN for a function without an irq",
          ":6:12: slot: \"1x\" is not a number", ":8:48: irq: \"1x\" is not a number",
          ":9:84: a BAR lacks the key \"address\"", ":9:84: a BAR lacks the key \"index\"",
          ":9:84: a BAR lacks the key \"size\"", ":10:5: 0000:00:03.0 is described twice",
          ":11:24: map 0 of a at 0x2000 overlaps BAR 0 of 0000:00:01.0 at 0x2000",
          ":12:15: a driver lacks the key \"name\"",
          ":12:16: a driver has no key \"nam\": did you mean \"name\"?"}},
        {"summary: x\npci-driver: [ours]\npci: [{slot: 1, id: 1b5a:0001, driver: ours}]\n",
         {":2:1: a machine has no key \"pci-driver\": did you mean \"pci-drivers\"?"}},
        {"summary: x\npci: [{slot: 1, id: 1b5a:0001, driver: igbb}]\ntemprature: 1\ncpus: x\n",
         {":2:7: hint: the driver \"igbb\" is unknown: did you mean \"igb\"?",
          ":3:1: a machine has no key \"temprature\": did you mean \"temperature\"?",
          ":4:7: cpus: \"x\" is not a number"}},
    };
    for (const auto& [text, mistakes] : cases) {
        const std::string file = folder.write("bad.yaml", text);
        std::string expected;
        for (const char* mistake : mistakes) {
            expected += (expected.empty() ? "" : "\n") + file + mistake;
        }
        EXPECT_EQ(refusalOf(file, true), expected);
    }
    std::string many = "summary: x\npci:\n";
    for (int i = 0; i < 30; ++i) {
        many += "  - no map\n";
    }
    const std::string endless = folder.write("endless.yaml", many);
    EXPECT_THAT(refusalOf(endless), testing::EndsWith("\n" + endless + ": there may be more"));
}

TEST(DescriptionReader, HintsAtWhatIsProbablyNotMeant) {
    const TemporaryFolder folder;
    std::vector<kvsim::Hint> hints;
    readDescription(folder.write("odd.yaml", R"(
summary: x
pci-drivers: [ours]
pci:
  - {slot: 1, id: 1b5a:0001, driver: uio_kelvar, irq: 4}
  - {slot: 2, id: 1b5a:0001, driver: uio_kelvaro}
  - {slot: 3, id: 1b5a:0001, driver: ours}
  - {slot: 4, id: 1b5a:0001, driver: somebodys}
  - {slot: 5, id: 1b5a:0001, driver: uio_kelvaro, irq: 5}
)"),
                    hints);
    ASSERT_EQ(hints.size(), 3U);
    EXPECT_EQ(hints[0].text, "the driver \"uio_kelvar\" is unknown: did you mean \"uio_kelvaro\"?");
    EXPECT_EQ(hints[0].position.line, 5);
    EXPECT_EQ(hints[1].text, "uio_kelvaro makes no /dev/uioN for a function without an irq");
    EXPECT_EQ(hints[2].text,
              "the driver \"somebodys\" is unknown, and does nothing but hold the function; pci-drivers may "
              "name it");
}

TEST(DescriptionReader, RefusesWhatIsNoReadableFile) {
    const TemporaryFolder folder;
    const std::string path = folder.path();
    EXPECT_EQ(refusalOf(path + "/none.yaml"), path + "/none.yaml: No such file or directory");
    EXPECT_EQ(refusalOf(path), path + ": Is a directory");
    EXPECT_EQ(refusalOf("/dev/zero"), "/dev/zero: the file is too large to describe a machine");
}

TEST(DescriptionReader, ReadsEveryKeyOfTheVocabulary) {
    const TemporaryFolder folder;
    const kvsim::MachineDescription machine = readDescription(folder.write("good.yaml", R"(
summary: everything
cpus: 0x8
temperature: -1500
serial-number: i2001
system-information: {kelvaro_version.txt: "7.1"}
pci-drivers: [uio_kelvaro, {name: atemsys_pci, ids: [8086:1533, 8086:1539]}]
pci:
  - slot: 1
    id: 10b5:8605
    leads-to: 2
    express: {version: 1, width: 4}
    behind:
      - slot: 3
        function: 2
        id: 1b5a:0A18
        subsystem: 1b5b:0002
        class: 0x020000
        revision: 9
        irq: 40
        driver: uio_kelvaro
        enabled: false
        bars:
          - {index: 4, address: 0x1000, size: 0x20, space: io, registers: {0x4: 0xFFFFFFFF}}
          - {index: 0, address: 0x1000, size: 0x1000}
        board: analog-io
        plants:
          - {output: 1, input: 2, gain: -0.8, time-constant: 5e-2}
        devices:
          - {class: net, name: eth7, attributes: {address: "02:00:00:00:00:07"}}
axi:
  - name: pwm
    irq: 89
    maps:
      - {name: table, address: 0x80000000, size: 0x1000, offset: 0x2000, registers: {0x8: 7}}
  - {name: encoder}
dma-memory: {address: 0x70000000, size: 0x100000}
cached-buffer: {address: 0x78000000, size: 0x200000}
platform:
  - {name: axi/a.serial, attributes: {mode: fast}, devices: [{class: tty, name: ttyPS0}]}
files:
  - {path: /proc/irq/52/smp_affinity_list, text: "0-3"}
)"));

    EXPECT_EQ(machine.cpus, 8U);
    EXPECT_EQ(machine.temperatureMilliCelsius, -1500);
    EXPECT_EQ(machine.serialNumber, "i2001\n");
    EXPECT_EQ(machine.systemInformation.at("kelvaro_version.txt"), "7.1\n");
    ASSERT_EQ(machine.pciDrivers.size(), 2U);
    EXPECT_EQ(machine.pciDrivers[0].name, "uio_kelvaro");
    EXPECT_EQ(machine.pciDrivers[1].name, "atemsys_pci");
    EXPECT_THAT(machine.pciDrivers[1].identities, ElementsAre(kvsim::PciDriver::Identity{0x8086, 0x1533},
                                                              kvsim::PciDriver::Identity{0x8086, 0x1539}));

    ASSERT_EQ(machine.pciFunctions.size(), 2U);
    const kvsim::PciFunction& bridge = machine.pciFunctions[0];
    EXPECT_EQ(bridge.secondaryBus, 2);
    EXPECT_EQ(bridge.classCode, 0x060400U);
    EXPECT_EQ(bridge.express->version, 1);
    EXPECT_EQ(bridge.express->linkWidth, 4);

    const kvsim::PciFunction& board = machine.pciFunctions[1];
    EXPECT_THAT((std::array{board.bus, board.slot, board.function}), ElementsAre(2, 3, 2));
    EXPECT_THAT((std::array{board.vendor, board.device, board.subsystemVendor, board.subsystemDevice}),
                ElementsAre(0x1b5a, 0x0a18, 0x1b5b, 0x0002));
    EXPECT_EQ(board.classCode, 0x020000U);
    EXPECT_EQ(board.revision, 9);
    EXPECT_EQ(board.irq, 40);
    EXPECT_EQ(board.driver, "uio_kelvaro");
    EXPECT_EQ(board.enabled, false);
    ASSERT_EQ(board.bars.size(), 2U);
    EXPECT_EQ(board.bars[0].index, 4U);
    EXPECT_EQ(board.bars[0].address, 0x1000U);
    EXPECT_EQ(board.bars[0].sizeBytes, 0x20U);
    EXPECT_EQ(board.bars[0].space, kvsim::BarSpace::Io);
    EXPECT_THAT(board.bars[0].registers, ElementsAre(Pair(4, 0xFFFFFFFF)));
    EXPECT_EQ(board.board, "analog-io");
    ASSERT_EQ(board.plants.size(), 1U);
    EXPECT_EQ(board.plants[0].output, 1U);
    EXPECT_EQ(board.plants[0].input, 2U);
    EXPECT_EQ(board.plants[0].gain, -0.8);
    EXPECT_EQ(board.plants[0].timeConstantSeconds, 0.05);
    ASSERT_EQ(board.classDevices.size(), 1U);
    EXPECT_EQ(board.classDevices[0].name, "eth7");
    EXPECT_THAT(board.classDevices[0].attributes, ElementsAre(Pair("address", "02:00:00:00:00:07\n")));

    ASSERT_EQ(machine.axiDevices.size(), 2U);
    EXPECT_EQ(machine.axiDevices[0].name, "pwm");
    EXPECT_EQ(machine.axiDevices[0].irq, 89U);
    EXPECT_THAT(machine.axiDevices[1].maps, IsEmpty());
    ASSERT_EQ(machine.axiDevices[0].maps.size(), 1U);
    const kvsim::UioMap& map = machine.axiDevices[0].maps[0];
    EXPECT_EQ(map.name, "table");
    EXPECT_EQ(map.address, 0x80000000U);
    EXPECT_EQ(map.sizeBytes, 0x1000U);
    EXPECT_EQ(map.offset, 0x2000U);
    EXPECT_THAT(map.registers, ElementsAre(Pair(8, 7)));
    EXPECT_EQ(machine.dmaMemory.value().address, 0x70000000U);
    EXPECT_EQ(machine.dmaMemory.value().sizeBytes, 0x100000U);
    EXPECT_EQ(machine.cachedBuffer.value().address, 0x78000000U);
    EXPECT_EQ(machine.cachedBuffer.value().sizeBytes, 0x200000U);

    ASSERT_EQ(machine.platformDevices.size(), 1U);
    EXPECT_THAT(machine.platformDevices[0].attributes, ElementsAre(Pair("mode", "fast\n")));
    EXPECT_EQ(machine.platformDevices[0].classDevices.at(0).className, "tty");
    ASSERT_EQ(machine.files.size(), 1U);
    EXPECT_EQ(machine.files[0].text, "0-3");
}

}  // namespace
