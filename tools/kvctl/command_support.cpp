#include "command_support.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include <boost/locale/utf.hpp>

#include <kv/diagnostics.h>

namespace kvctl {

namespace {

constexpr std::size_t kColumnGap = 2;

bool isPrintable(boost::locale::utf::code_point character) {
    const bool isControl = character < 0x20 || (character >= 0x7F && character < 0xA0);
    return !isControl && boost::locale::utf::is_valid_codepoint(character);
}

}  // namespace

void Problems::report(const std::string& what, const std::string& reason) {
    std::cerr << "kvctl: " << printable(what) << ": " << printable(reason) << '\n';
    any_ = true;
}

std::optional<std::string> contentsOf(const std::string& path, Problems& problems) {
    std::ifstream file(path);
    std::string text;
    for (char byte = 0; file.get(byte);) {
        text += byte;
    }
    if (!file.is_open() || file.bad()) {
        problems.report(path, std::strerror(errno));
        return std::nullopt;
    }
    return text;
}

std::optional<std::string> firstLineOf(const std::string& path, Problems& problems) {
    const std::optional<std::string> text = contentsOf(path, problems);
    if (text && text->empty()) {
        problems.report(path, "the file is empty");
        return std::nullopt;
    }
    return text ? std::optional(text->substr(0, text->find('\n'))) : std::nullopt;
}

std::shared_ptr<const bool> addJsonFlag(command_line::Command& command) {
    auto asJson = std::make_shared<bool>(false);
    command.addFlag("--json", *asJson, "Print JSON for programs");
    return asJson;
}

void printJson(const Json& value) {
    std::cout << value.dump(2, ' ', true, Json::error_handler_t::replace) << '\n';
}

std::string printable(std::string_view text) {
    std::string shown;
    for (const char* next = text.begin(); next != text.end();) {
        const char* const begin = next;
        const auto character = boost::locale::utf::utf_traits<char>::decode(next, text.end());
        for (const char byte : std::string_view(begin, next)) {
            shown += isPrintable(character)
                         ? std::string(1, byte)
                         : kv::utils::formatString("\\x%02X", static_cast<unsigned char>(byte));
        }
    }
    return shown;
}

void printColumns(Rows rows) {
    std::vector<std::size_t> widths;
    for (auto& row : rows) {
        std::ranges::transform(row, row.begin(), printable);
    }
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size() + kColumnGap);
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i] + std::string(widths[i] - row[i].size(), ' ');
        }
        std::cout << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
    }
}

}  // namespace kvctl
