#pragma once

#include <filesystem>

namespace kvsim {

/**
 * The folder above the running program's own. What is installed with the program is found from there, even
 * where both were moved.
 */
inline std::filesystem::path installationPrefix() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().parent_path();
}

}  // namespace kvsim
