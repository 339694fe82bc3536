#include "kvsim/description_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>

#include "command_line/nearest_word.h"
#include "description/checks.h"
#include "description/gpio_reader.h"
#include "description/hints.h"
#include "description/mistakes.h"
#include "description/open_quote.h"
#include "description/soc_reader.h"
#include "description/yaml_section.h"
#include "layout/format.h"

namespace kvsim {

namespace {

constexpr std::streamsize kMaxFileSize = 1 << 20;
constexpr std::size_t kMaxFunctions = 256UL * 32 * 8;  // buses, slots, functions

/** Vendor and device as people write them: "8086:1533". */
std::pair<std::uint16_t, std::uint16_t> readIdentity(const YAML::Node& node, const std::string& name) {
    const std::string text = readText(node, name);
    unsigned vendor = 0;
    unsigned device = 0;
    int length = 0;
    const bool isIdentity =
        text.size() == 9 && std::sscanf(text.c_str(), "%4x:%4x%n", &vendor, &device, &length) == 2;
    if (!isIdentity || length != 9) {
        throw DescriptionError(
            name + ": \"" + text + "\" is not a pair of four hexadecimal digits each, as in 8086:1533",
            positionOf(node));
    }
    return {static_cast<std::uint16_t>(vendor), static_cast<std::uint16_t>(device)};
}

bool readSwitch(const YAML::Node& node, const std::string& name) {
    const std::string text = readText(node, name);
    if (text != "true" && text != "false") {
        throw DescriptionError(name + ": \"" + text + "\" is neither true nor false", positionOf(node));
    }
    return text == "true";
}

/** Attribute and information files end their line, which nobody writes in a description. */
std::string asLine(std::string text) {
    if (!text.ends_with('\n')) {
        text += '\n';
    }
    return text;
}

std::map<std::string, std::string> readLines(const YAML::Node& node, const std::string& name) {
    auto texts = readTexts(node, name);
    for (auto& [key, text] : texts) {
        text = asLine(text);
    }
    return texts;
}

FarEnd readTerminal(const YAML::Node& node) {
    const YAML::Node farEnd = YamlSection(node, "a terminal", {"far-end"}).required("far-end");
    const std::string text = readText(farEnd, "far-end");
    if (text == "echo") {
        return FarEnd::Echo;
    }
    if (text == "capture") {
        return FarEnd::Capture;
    }
    if (text == "none") {
        return FarEnd::None;
    }
    throw DescriptionError("far-end: \"" + text + "\" is none of echo, capture, none", positionOf(farEnd));
}

std::vector<ClassDevice> readClassDevices(const YAML::Node& list) {
    return readList<ClassDevice>(list, "devices", [](const YAML::Node& node) {
        const YamlSection section(node, "a device", {"class", "name", "attributes", "terminal"});
        ClassDevice device{.className = section.text("class"), .name = section.text("name")};
        device.position = section.position();
        section.optional("attributes", [&](const YAML::Node& value) {
            device.attributes = readLines(value, "attributes");
        });
        section.optional("terminal", [&](const YAML::Node& value) { device.terminal = readTerminal(value); });
        return device;
    });
}

BarSpace readSpace(const YAML::Node& node) {
    const std::string text = readText(node, "space");
    if (text == "memory") {
        return BarSpace::Memory;
    }
    if (text == "prefetchable") {
        return BarSpace::PrefetchableMemory;
    }
    if (text == "io") {
        return BarSpace::Io;
    }
    throw DescriptionError("space: \"" + text + "\" is none of memory, prefetchable, io", positionOf(node));
}

Bar readBar(const YAML::Node& node) {
    const YamlSection section(node, "a BAR", {"index", "address", "size", "space", "registers"});
    Bar bar{.index = section.number<unsigned>("index"),
            .address = section.number<std::uint64_t>("address"),
            .sizeBytes = section.number<std::uint64_t>("size")};
    bar.position = section.position();
    section.optional("space", [&](const YAML::Node& value) { bar.space = readSpace(value); });
    section.optional("registers", [&](const YAML::Node& value) { bar.registers = readRegisters(value); });
    return bar;
}

ExpressCapability readExpress(const YAML::Node& node) {
    const YamlSection section(node, "express", {"version", "width"});
    ExpressCapability express;
    section.optionalNumber("version", express.version);
    section.optionalNumber("width", express.linkWidth);
    return express;
}

std::vector<Plant> readPlants(const YAML::Node& list) {
    return readList<Plant>(list, "plants", [](const YAML::Node& node) {
        const YamlSection section(node, "a plant", {"output", "input", "gain", "time-constant"});
        Plant plant{.output = section.number<unsigned>("output"), .input = section.number<unsigned>("input")};
        plant.position = section.position();
        section.optionalDecimal("gain", plant.gain);
        section.optionalDecimal("time-constant", plant.timeConstantSeconds);
        return plant;
    });
}

/**
 * Reads the functions of one bus, each followed by those of the bus that it leads to. A function with a
 * mistake is left out, and with a bridge what is behind it.
 */
class PciReader {
 public:
    explicit PciReader(std::vector<PciFunction>& functions) : functions_(functions) {}

    void readBus(const YAML::Node& list, const char* key, std::uint8_t bus) {
        forEach(list, key, [this, bus](const YAML::Node& node) { readFunction(node, bus); });
    }

 private:
    void readFunction(const YAML::Node& node, std::uint8_t bus) {
        const int formerMistakes = Mistakes::count();
        const YamlSection section(
            node, "a PCI function",
            {"slot", "function", "id", "subsystem", "class", "revision", "irq", "driver", "enabled",
             "express", "bars", "devices", "board", "plants", "leads-to", "behind"});
        if (functions_.size() == kMaxFunctions) {
            throw DescriptionError(format("there are more than %zu PCI functions", kMaxFunctions),
                                   section.position());
        }
        PciFunction function{.bus = bus, .slot = section.number<std::uint8_t>("slot")};
        function.position = section.position();
        Mistakes::attempt(
            [&] { std::tie(function.vendor, function.device) = readIdentity(section.required("id"), "id"); });
        section.optionalNumber("function", function.function);
        section.optionalNumber("revision", function.revision);
        section.optionalNumber("irq", function.irq);
        section.optionalText("driver", function.driver);
        section.optional("subsystem", [&](const YAML::Node& value) {
            std::tie(function.subsystemVendor, function.subsystemDevice) = readIdentity(value, "subsystem");
        });
        section.optional("enabled",
                         [&](const YAML::Node& value) { function.enabled = readSwitch(value, "enabled"); });
        section.optional("express", [&](const YAML::Node& value) { function.express = readExpress(value); });
        section.optional("bars", [&](const YAML::Node& list) {
            forEach(list, "bars", [&](const YAML::Node& bar) { function.bars.push_back(readBar(bar)); });
        });
        section.optional("devices",
                         [&](const YAML::Node& value) { function.classDevices = readClassDevices(value); });
        section.optionalText("board", function.board);
        section.optional("plants", [&](const YAML::Node& value) { function.plants = readPlants(value); });
        if (section.has("leads-to")) {
            // Bus numbers grow from bridge to bridge, which also ends a list that holds itself.
            function.secondaryBus = static_cast<std::uint8_t>(
                readNumber(section.required("leads-to"), "leads-to", bus + 1, UINT8_MAX));
            function.classCode = kBridgeClassCode;
        }
        section.optionalNumber("class", function.classCode);
        const bool isSound = Mistakes::count() == formerMistakes;
        const std::size_t formerFunctions = functions_.size();
        functions_.push_back(function);
        Mistakes::attempt([&] {
            if (section.has("behind")) {
                readBehind(section.required("behind"), function);
            }
        });
        if (!isSound) {
            functions_.resize(formerFunctions);
        }
    }

    void readBehind(const YAML::Node& list, const PciFunction& bridge) {
        if (!bridge.secondaryBus) {
            throw DescriptionError("what is behind this bridge needs its bus number: leads-to is missing",
                                   positionOf(list));
        }
        readBus(list, "behind", *bridge.secondaryBus);
    }

    std::vector<PciFunction>& functions_;
};

/** A driver is a name, or a map where it has identities too. */
PciDriver readPciDriver(const YAML::Node& node) {
    if (!node.IsMap()) {
        return {.name = readText(node, "a driver"), .position = positionOf(node)};
    }
    const YamlSection section(node, "a driver", {"name", "ids"});
    PciDriver driver{.name = section.text("name"), .position = section.position()};
    section.optional("ids", [&](const YAML::Node& list) {
        forEach(list, "ids", [&](const YAML::Node& id) {
            const auto [vendor, device] = readIdentity(id, "ids");
            driver.identities.push_back({.vendor = vendor, .device = device});
        });
    });
    return driver;
}

std::vector<PciDriver> readPciDrivers(const YAML::Node& list) {
    return readList<PciDriver>(list, "pci-drivers", readPciDriver);
}

std::vector<PlatformDevice> readPlatformDevices(const YAML::Node& list) {
    return readList<PlatformDevice>(list, "platform", [](const YAML::Node& node) {
        const YamlSection section(node, "a platform device", {"name", "attributes", "devices"});
        PlatformDevice device{.name = section.text("name")};
        device.position = section.position();
        section.optional("attributes", [&](const YAML::Node& value) {
            device.attributes = readLines(value, "attributes");
        });
        section.optional("devices",
                         [&](const YAML::Node& value) { device.classDevices = readClassDevices(value); });
        return device;
    });
}

std::vector<PlainFile> readFiles(const YAML::Node& list) {
    return readList<PlainFile>(list, "files", [](const YAML::Node& node) {
        const YamlSection section(node, "a file", {"path", "text"});
        return PlainFile{
            .path = section.text("path"), .text = section.text("text"), .position = section.position()};
    });
}

/** Whether a key of a map is a mistyped `word`. */
bool hasMistyped(const std::string& word, const YAML::Node& map) {
    return std::any_of(map.begin(), map.end(), [&word](const auto& entry) {
        const std::string& key = entry.first.Scalar();
        return key != word && command_line::nearestWord(key, {word});
    });
}

/** `hasAllDrivers` is false where a PCI driver could not be read. */
MachineDescription readMachine(const YAML::Node& document, bool& hasAllDrivers) {
    const YamlSection section(
        document, "a machine",
        {"summary", "cpus", "temperature", "serial-number", "system-information", "pci-drivers", "pci", "axi",
         "dma-memory", "cached-buffer", "gpio", "platform", "files"});
    MachineDescription machine;
    machine.summary = section.text("summary");
    if (section.has("cpus")) {
        machine.cpus = section.number<unsigned>("cpus", 1, kMaxCpus);
    }
    section.optionalNumber("temperature", machine.temperatureMilliCelsius);
    section.optional("serial-number", [&](const YAML::Node& value) {
        machine.serialNumber = asLine(readText(value, "serial-number"));
    });
    section.optional("system-information", [&](const YAML::Node& information) {
        for (const auto& [name, text] : readLines(information, "system-information")) {
            requireFileName(name, "a system-information file", positionOf(information));
            machine.systemInformation[name] = text;
        }
    });
    const int formerMistakes = Mistakes::count();
    section.optional("pci-drivers",
                     [&](const YAML::Node& value) { machine.pciDrivers = readPciDrivers(value); });
    hasAllDrivers = Mistakes::count() == formerMistakes && !hasMistyped("pci-drivers", document);
    section.optional(
        "pci", [&](const YAML::Node& list) { PciReader(machine.pciFunctions).readBus(list, "pci", 0); });
    section.optional("axi", [&](const YAML::Node& value) { machine.axiDevices = readAxiDevices(value); });
    section.optional("dma-memory", [&](const YAML::Node& value) {
        machine.dmaMemory = readMemoryRange(value, "dma-memory");
    });
    section.optional("cached-buffer", [&](const YAML::Node& value) {
        machine.cachedBuffer = readMemoryRange(value, "cached-buffer");
    });
    section.optional("gpio", [&](const YAML::Node& value) { machine.gpioChips = readGpioChips(value); });
    section.optional("platform",
                     [&](const YAML::Node& value) { machine.platformDevices = readPlatformDevices(value); });
    section.optional("files", [&](const YAML::Node& value) { machine.files = readFiles(value); });
    return machine;
}

std::string readWhole(const std::filesystem::path& file) {
    std::error_code unknown;
    errno = std::filesystem::is_directory(file, unknown) ? EISDIR : 0;
    std::ifstream stream(file, std::ios::binary);
    if (errno != 0 || !stream) {
        throw DescriptionError(std::strerror(errno));
    }
    std::string text(static_cast<std::size_t>(kMaxFileSize) + 1, '\0');
    stream.read(text.data(), kMaxFileSize + 1);
    if (stream.gcount() > kMaxFileSize) {
        throw DescriptionError("the file is too large to describe a machine");
    }
    text.resize(static_cast<std::size_t>(stream.gcount()));
    return text;
}

MachineDescription readChecked(const std::filesystem::path& file, std::vector<Hint>& hints) {
    const std::string text = readWhole(file);
    refuseUnclosedQuote(text);
    const std::vector<YAML::Node> documents = YAML::LoadAll(text);
    if (documents.empty() || documents.front().IsNull()) {
        throw DescriptionError("the file is empty");
    }
    if (documents.size() > 1) {
        throw DescriptionError("the file holds more than one document", positionOf(documents[1]));
    }
    bool hasAllDrivers = false;
    MachineDescription machine = readMachine(documents.front(), hasAllDrivers);
    hints = hintsFor(machine, hasAllDrivers);
    validate(machine);
    return machine;
}

/** Hints that are not wanted do not stand among the mistakes. */
MachineDescription readWith(const std::filesystem::path& file, std::vector<Hint>* wantedHints) {
    Mistakes mistakes;
    MachineDescription machine;
    std::vector<Hint> hints;
    Mistakes::collect([&] {
        try {
            machine = readChecked(file, hints);
        } catch (const YAML::Exception& error) {
            throw DescriptionError("invalid YAML: " + error.msg,
                                   {.line = error.mark.line + 1, .column = error.mark.column + 1});
        }
    });
    if (wantedHints != nullptr) {
        mistakes.addHints(hints);
        *wantedHints = std::move(hints);
    }
    mistakes.throwIfAny(file);
    return machine;
}

}  // namespace

MachineDescription readDescription(const std::filesystem::path& file) {
    return readWith(file, nullptr);
}

MachineDescription readDescription(const std::filesystem::path& file, std::vector<Hint>& hints) {
    return readWith(file, &hints);
}

}  // namespace kvsim
