#include "description/yaml_section.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

#include "command_line/nearest_word.h"
#include "description/mistakes.h"

namespace kvsim {

namespace {

std::string unknownKey(const std::string& key, const std::string& what,
                       const std::initializer_list<const char*>& knownKeys) {
    if (const auto nearest = command_line::nearestWord(key, {knownKeys.begin(), knownKeys.end()})) {
        return what + " has no key \"" + key + "\": did you mean \"" + *nearest + "\"?";
    }
    std::string reason = what + " has no key \"" + key + "\", only";
    for (const char* known : knownKeys) {
        reason += std::string(known == *knownKeys.begin() ? " " : ", ") + known;
    }
    return reason;
}

/** Calls for each entry of a map, and refuses a key that occurs twice. */
void forEachKey(const YAML::Node& map, const std::string& what,
                const std::function<void(const YAML::Node& key, const YAML::Node& value)>& readEntry) {
    if (!map.IsMap()) {
        throw DescriptionError(what + " must be a map of keys and values", positionOf(map));
    }
    std::set<std::string> keys;
    for (const auto& entry : map) {
        Mistakes::attempt([&] {
            const std::string key = readText(entry.first, "a key");
            if (!keys.insert(key).second) {
                throw DescriptionError("\"" + key + "\" is given twice", positionOf(entry.first));
            }
            readEntry(entry.first, entry.second);
        });
    }
}

}  // namespace

Position positionOf(const YAML::Node& node) {
    const YAML::Mark mark = node.Mark();
    return {.line = mark.line + 1, .column = mark.column + 1};
}

std::string readText(const YAML::Node& node, const std::string& name) {
    if (!node.IsScalar()) {
        throw DescriptionError(name + " must be a single value", positionOf(node));
    }
    return node.Scalar();
}

std::int64_t readNumber(const YAML::Node& node, const std::string& name, std::int64_t first,
                        std::int64_t last) {
    const std::string text = readText(node, name);
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + (isHex ? 2 : 0), end, number, isHex ? 16 : 10);
    if (parsed.ptr != end || parsed.ec == std::errc::invalid_argument || (isHex && number < 0)) {
        throw DescriptionError(name + ": \"" + text + "\" is not a number", positionOf(node));
    }
    if (parsed.ec != std::errc() || number < first || number > last) {
        throw DescriptionError(name + ": " + text + " is not in the range " + std::to_string(first) + " to " +
                                   std::to_string(last),
                               positionOf(node));
    }
    return number;
}

double readDecimal(const YAML::Node& node, const std::string& name) {
    const std::string text = readText(node, name);
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ptr != end || parsed.ec != std::errc() || !std::isfinite(number)) {
        throw DescriptionError(name + ": \"" + text + "\" is not a number", positionOf(node));
    }
    return number;
}

std::map<std::string, std::string> readTexts(const YAML::Node& node, const std::string& name) {
    std::map<std::string, std::string> texts;
    forEachKey(node, name, [&texts](const YAML::Node& key, const YAML::Node& value) {
        texts[key.Scalar()] = readText(value, key.Scalar());
    });
    return texts;
}

std::map<std::uint32_t, std::uint32_t> readRegisters(const YAML::Node& map) {
    if (!map.IsMap()) {
        throw DescriptionError("registers must be a map from offsets to values", positionOf(map));
    }
    std::map<std::uint32_t, std::uint32_t> registers;
    for (const auto& entry : map) {
        const auto offset = static_cast<std::uint32_t>(readNumber(entry.first, "offset", 0, UINT32_MAX));
        const auto value = static_cast<std::uint32_t>(readNumber(entry.second, "register", 0, UINT32_MAX));
        if (!registers.emplace(offset, value).second) {
            throw DescriptionError("the register is given twice", positionOf(entry.first));
        }
    }
    return registers;
}

void forEach(const YAML::Node& list, const std::string& name,
             const std::function<void(const YAML::Node&)>& readEntry) {
    if (!list.IsSequence()) {
        throw DescriptionError(name + " must be a list", positionOf(list));
    }
    for (const YAML::Node& entry : list) {
        Mistakes::attempt([&] { readEntry(entry); });
    }
}

YamlSection::YamlSection(const YAML::Node& node, std::string what,
                         std::initializer_list<const char*> knownKeys)
    : node_(node), what_(std::move(what)) {
    forEachKey(node, what_, [&](const YAML::Node& key, const YAML::Node& /*value*/) {
        if (std::ranges::find(knownKeys, key.Scalar()) == knownKeys.end()) {
            throw DescriptionError(unknownKey(key.Scalar(), what_, knownKeys), positionOf(key));
        }
    });
}

YAML::Node YamlSection::required(const char* key) const {
    const YAML::Node value = node_[key];
    if (!value.IsDefined()) {
        throw DescriptionError(what_ + " lacks the key \"" + key + "\"", position());
    }
    return value;
}

std::string YamlSection::text(const char* key) const {
    std::string text;
    Mistakes::attempt([&] { text = readText(required(key), key); });
    return text;
}

void YamlSection::optional(const char* key, const std::function<void(const YAML::Node&)>& read) const {
    if (has(key)) {
        Mistakes::attempt([&] { read(node_[key]); });
    }
}

void YamlSection::optionalText(const char* key, std::string& target) const {
    optional(key, [&](const YAML::Node& node) { target = readText(node, key); });
}

void YamlSection::optionalDecimal(const char* key, double& target) const {
    optional(key, [&](const YAML::Node& node) { target = readDecimal(node, key); });
}

}  // namespace kvsim
