#pragma once

#include <memory>
#include <optional>
#include <string>
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

/** Prints rows of cells in columns. */
void printColumns(const std::vector<std::vector<std::string>>& rows);

/** What JSON holds where a value may be missing. */
template <typename Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

}  // namespace kvctl
