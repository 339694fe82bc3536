#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <yaml-cpp/yaml.h>

#include "description/mistakes.h"
#include "kvsim/description.h"

namespace kvsim {

Position positionOf(const YAML::Node& node);

/** The text of a scalar; refuses lists and maps. `name` goes into the reason. */
std::string readText(const YAML::Node& node, const std::string& name);

/** A decimal or, after 0x, hexadecimal number. */
std::int64_t readNumber(const YAML::Node& node, const std::string& name, std::int64_t first,
                        std::int64_t last);

/** A decimal number, which may have a fraction or an exponent. */
double readDecimal(const YAML::Node& node, const std::string& name);

/** A map from names to texts; refuses a name that occurs twice. */
std::map<std::string, std::string> readTexts(const YAML::Node& node, const std::string& name);

/** A map from the offsets to the values of 32-bit registers; refuses a register that is given twice. */
std::map<std::uint32_t, std::uint32_t> readRegisters(const YAML::Node& map);

/** Calls for each entry of a list. */
void forEach(const YAML::Node& list, const std::string& name,
             const std::function<void(const YAML::Node&)>& readEntry);

/** The entries of a list that were read without a mistake. */
template <typename Entry>
std::vector<Entry> readList(const YAML::Node& list, const std::string& name,
                            const std::function<Entry(const YAML::Node&)>& read) {
    std::vector<Entry> entries;
    forEach(list, name, [&](const YAML::Node& node) {
        const int formerMistakes = Mistakes::count();
        Entry entry = read(node);
        if (Mistakes::count() == formerMistakes) {
            entries.push_back(std::move(entry));
        }
    });
    return entries;
}

/**
 * One map of a description. Refuses, at its making, whatever is no map or holds a key that it doesn't know.
 * While mistakes are collected, what can't be read is left out, and what must be there is empty or the lowest
 * number.
 */
class YamlSection {
 public:
    YamlSection(const YAML::Node& node, std::string what, std::initializer_list<const char*> knownKeys);

    [[nodiscard]] Position position() const { return positionOf(node_); }
    [[nodiscard]] bool has(const char* key) const { return node_[key].IsDefined(); }
    /** The value of a key that must be there. */
    [[nodiscard]] YAML::Node required(const char* key) const;

    [[nodiscard]] std::string text(const char* key) const;

    /** A number between the bounds, which are those of the type unless they are given. */
    template <typename Number>
    [[nodiscard]] Number number(const char* key, std::int64_t first = lowest<Number>(),
                                std::int64_t last = highest<Number>()) const {
        std::int64_t number = first;
        Mistakes::attempt([&] { number = readNumber(required(key), key, first, last); });
        return static_cast<Number>(number);
    }

    /** Calls with the value of a key, where there is one. */
    void optional(const char* key, const std::function<void(const YAML::Node&)>& read) const;
    /** As text() and number(), and leaves the target as it is where there is no such key. */
    void optionalText(const char* key, std::string& target) const;
    template <typename Number>
    void optionalNumber(const char* key, Number& target) const {
        optional(key, [&](const YAML::Node& node) {
            target = static_cast<Number>(readNumber(node, key, lowest<Number>(), highest<Number>()));
        });
    }
    void optionalDecimal(const char* key, double& target) const;

 private:
    template <typename Number>
    static constexpr std::int64_t lowest() {
        return static_cast<std::int64_t>(std::numeric_limits<Number>::min());
    }
    template <typename Number>
    static constexpr std::int64_t highest() {
        if constexpr (sizeof(Number) == sizeof(std::int64_t)) {
            return std::numeric_limits<std::int64_t>::max();
        } else {
            return static_cast<std::int64_t>(std::numeric_limits<Number>::max());
        }
    }

    YAML::Node node_;
    std::string what_;
};

}  // namespace kvsim
