#include "description/soc_reader.h"

#include "description/yaml_section.h"

namespace kvsim {

namespace {

UioMap readMap(const YAML::Node& node) {
    const YamlSection section(node, "a map", {"name", "address", "size", "offset", "registers"});
    UioMap map{.address = section.number<std::uint64_t>("address"),
               .sizeBytes = section.number<std::uint64_t>("size")};
    map.position = section.position();
    section.optionalText("name", map.name);
    section.optionalNumber("offset", map.offset);
    section.optional("registers", [&](const YAML::Node& value) { map.registers = readRegisters(value); });
    return map;
}

}  // namespace

std::vector<AxiDevice> readAxiDevices(const YAML::Node& list) {
    return readList<AxiDevice>(list, "axi", [](const YAML::Node& node) {
        const YamlSection section(node, "an AXI device", {"name", "irq", "maps"});
        AxiDevice device{.name = section.text("name")};
        device.position = section.position();
        section.optionalNumber("irq", device.irq);
        section.optional("maps", [&](const YAML::Node& maps) {
            forEach(maps, "maps", [&](const YAML::Node& map) { device.maps.push_back(readMap(map)); });
        });
        return device;
    });
}

std::optional<MemoryRange> readMemoryRange(const YAML::Node& node, const char* what) {
    const int formerMistakes = Mistakes::count();
    const YamlSection section(node, what, {"address", "size"});
    const MemoryRange range{.address = section.number<std::uint64_t>("address"),
                            .sizeBytes = section.number<std::uint64_t>("size"),
                            .position = section.position()};
    return Mistakes::count() == formerMistakes ? std::optional(range) : std::nullopt;
}

}  // namespace kvsim
