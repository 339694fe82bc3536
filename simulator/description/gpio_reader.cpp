#include "description/gpio_reader.h"

#include "description/yaml_section.h"

namespace kvsim {

namespace {

std::map<unsigned, std::string> readLineNames(const YAML::Node& map) {
    if (!map.IsMap()) {
        throw DescriptionError("lines must be a map from offsets to names", positionOf(map));
    }
    std::map<unsigned, std::string> lines;
    for (const auto& entry : map) {
        const auto offset =
            static_cast<unsigned>(readNumber(entry.first, "the offset of a line", 0, kMaxGpioOffset));
        if (!lines.emplace(offset, readText(entry.second, "the name of a line")).second) {
            throw DescriptionError("line " + std::to_string(offset) + " is named twice",
                                   positionOf(entry.first));
        }
    }
    return lines;
}

}  // namespace

std::vector<GpioChip> readGpioChips(const YAML::Node& list) {
    return readList<GpioChip>(list, "gpio", [](const YAML::Node& node) {
        const YamlSection section(node, "a GPIO chip", {"name", "label", "lines"});
        GpioChip chip{.name = section.text("name"), .label = section.text("label")};
        chip.position = section.position();
        chip.lines = readLineNames(section.required("lines"));
        return chip;
    });
}

}  // namespace kvsim
