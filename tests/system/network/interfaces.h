#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <kv/diagnostics.h>

#include "support/log_capture.h"
#include "system/kernel_files.h"

namespace kv::test {

inline std::string translation() {
    return readText("/usr/kelvaro/sysinfo/ethTranslateFile.txt");
}

/** The PCI function at a place, such as "0b:00.0". */
inline std::filesystem::path functionAt(const std::string& place) {
    return "/sys/bus/pci/devices/0000:" + place;
}

/** The interfaces of the chip's own controllers, in the order of their addresses. */
inline std::vector<std::string> chipInterfaces() {
    std::vector<std::filesystem::path> controllers;
    for (const auto& device : std::filesystem::directory_iterator("/sys/devices/platform/axi")) {
        if (device.path().extension() == ".ethernet") {
            controllers.push_back(device);
        }
    }
    std::ranges::sort(controllers);
    std::vector<std::string> names(controllers.size());
    std::ranges::transform(controllers, names.begin(), interfaceOf);
    return names;
}

}  // namespace kv::test
