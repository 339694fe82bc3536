#include <exception>
#include <fstream>
#include <optional>
#include <string>

#include <kv/target.h>

#include "os/cancellation.h"

namespace {

constexpr const char* kMarketingNameFile = "/usr/kelvaro/sysinfo/kelvaro_marketingName.txt";
constexpr const char* kVersionFile = "/usr/kelvaro/sysinfo/kelvaro_version.txt";

/** The first line of a file, empty where it has none; nothing where the file cannot be opened. */
std::optional<std::string> firstLine(const char* path) {
    std::ifstream file(path);
    if (!file) {
        return std::nullopt;
    }
    std::string line;
    std::getline(file, line);
    return line;
}

std::string composeSerialNumber() {
    const struct {
        const char* prefix;
        int (*read)();
    } kinds[] = {{"SN ", kv_getSerialNumber},
                 {"SN i", kv_getSerialNumberInternal},
                 {"SN s", kv_getSerialNumberSupplier}};
    for (const auto& [prefix, read] : kinds) {
        if (const int number = read(); number != -1) {
            return prefix + std::to_string(number);
        }
    }
    return "NoSerialNumber";
}

std::string serialNumberText() {
    try {
        return composeSerialNumber();
    } catch (const std::exception&) {
        return "InvalidSerialNumber";
    }
}

std::string inWhite(const std::string& text) {
    return "<white>" + text + "</white>";
}

}  // namespace

std::string kv_getTargetScreenLine1() {
    const kv::os::CancellationHold hold;
    const std::string line1 = "Kelvaro";
    // The installation's name, not the compiled-in one: the placeholder shows that its file is missing.
    const std::string targetMarketingName = firstLine(kMarketingNameFile).value_or("MarketingName");
    const std::string serialNumberString = serialNumberText();
    return inWhite(line1 + " " + targetMarketingName + " " + serialNumberString);
}

std::string kv_getTargetScreenLine2() {
    const kv::os::CancellationHold hold;
    return inWhite(firstLine(kVersionFile).value_or(""));
}
