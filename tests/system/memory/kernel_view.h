#pragma once

#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>

#include "system/kernel_files.h"

namespace kv::test {

constexpr std::size_t kPageBytes = 4096;

/** The number that a file has at a place, such as one of a page frame; empty where it has none. */
inline std::optional<uint64_t> kernelNumberAt(const char* path, uint64_t index) {
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    uint64_t number = 0;
    const ssize_t count = ::pread(file, &number, sizeof number, static_cast<off_t>(index * sizeof number));
    ::close(file);
    return count == sizeof number ? std::optional(number) : std::nullopt;
}

/** What this process has mapped of a file, as lines of /proc/self/maps without the inode. */
inline std::string mappingsOf(const std::string& path) {
    std::istringstream maps(readText("/proc/self/maps"));
    std::string found;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream words(line);
        std::string range, rights, offset, device, inode, file;
        words >> range >> rights >> offset >> device >> inode >> file;
        found += file == path ? range + " " + rights + " " + offset + "\n" : "";
    }
    return found;
}

}  // namespace kv::test
