#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace kv::test {

/** A file's text without its line end; empty where it cannot be read. */
inline std::string readText(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(stream)), {});
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

/** The network interface that the kernel has for a device; empty where it has none. */
inline std::string interfaceOf(const std::filesystem::path& device) {
    std::error_code none;
    const std::filesystem::directory_iterator interfaces(device / "net", none);
    return none || interfaces == std::filesystem::directory_iterator()
               ? ""
               : interfaces->path().filename().string();
}

}  // namespace kv::test
