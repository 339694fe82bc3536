#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_line/command_line.h"

namespace kvctl {

using Json = nlohmann::ordered_json;

/** Tells on standard error what is missing or has failed, and remembers that there was something. */
class Problems {
 public:
    /** @param what  the file in question, where it is one */
    void report(const std::string& what, const std::string& reason);
    /** The exit status of the program: 1 where anything was reported. */
    int status() const { return any_ ? 1 : 0; }

 private:
    bool any_ = false;
};

/** The text of a file; none, which is reported, where it cannot be read. */
std::optional<std::string> contentsOf(const std::string& path, Problems& problems);

/** The first line of a file; none, which is reported, where there is none. */
std::optional<std::string> firstLineOf(const std::string& path, Problems& problems);

/** Adds `--json` to a command. */
std::shared_ptr<const bool> addJsonFlag(command_line::Command& command);

/** Prints JSON for programs; what is no UTF-8 in it is replaced. */
void printJson(const Json& value);

/**
 * A text of the machine's files as people may see it: what a terminal would obey, and what is not UTF-8, is
 * written as "\xNN", a byte each.
 */
std::string printable(std::string_view text);

using Rows = std::vector<std::vector<std::string>>;

/** Prints rows of cells in columns, each cell as printable() gives it. */
void printColumns(Rows rows);

/** What JSON holds where a value may be missing. */
template <typename Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

}  // namespace kvctl
