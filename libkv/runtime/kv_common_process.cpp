#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <spawn.h>

#include <kv/diagnostics.h>
#include <kv/process.h>

#include "os/cancellation.h"

namespace {

constexpr const char* kVersionFile = "/usr/kelvaro/sysinfo/kelvaro_version.txt";
constexpr std::size_t kExecutablePathSize = 100;
constexpr std::size_t kArgumentSlots = 20;  // the executable, 18 arguments and the end

using ArgumentVector = std::array<char*, kArgumentSlots>;

struct Free {
    void operator()(char* text) const noexcept { std::free(text); }
};
using OwnedText = std::unique_ptr<char, Free>;

/** Cuts the options in place. Those beyond the last slot are dropped with a warning. */
ArgumentVector splitArguments(char* executable, char* options) {
    ArgumentVector arguments{executable};
    char* rest = nullptr;
    char* token = strtok_r(options, " ", &rest);
    for (std::size_t slot = 1; slot < arguments.size() - 1 && token != nullptr; ++slot) {
        arguments[slot] = token;
        token = strtok_r(nullptr, " ", &rest);
    }
    if (token != nullptr) {
        kv_printf(
            kv_warning,
            "kv_spawnExecutable(): Too many arguments specified, remaining arguments will be ignored\n");
    }
    return arguments;
}

}  // namespace

int kv_spawnExecutable(const char* path, const char* executableName, const char* options) {
    const kv::os::CancellationHold hold;
    std::array<char, kExecutablePathSize> executable;
    const int length = std::snprintf(executable.data(), executable.size(), "%s/%s", path, executableName);
    if (length < 0 || static_cast<std::size_t>(length) >= executable.size()) {
        kv_printf(kv_info, "kv_spawnExecutable(): Executable path too long\n");
        return -1;
    }
    const OwnedText copy(strdup(options));
    if (copy == nullptr) {
        return -1;
    }
    const ArgumentVector arguments = splitArguments(executable.data(), copy.get());

    pid_t child = 0;
    // The child starts with an empty environment.
    const int error = posix_spawn(&child, executable.data(), nullptr, nullptr, arguments.data(), nullptr);
    if (error != 0) {
        kv_printf(kv_info, "posix_spawn() failed: %s\n", std::strerror(error));
        return -1;
    }
    kv_printf(kv_debug, "Child pid: %d\n", child);
    return child;
}

int kv_getLibVersion(char* outLibVer) {
    const kv::os::CancellationHold hold;
    std::FILE* file = std::fopen(kVersionFile, "re");
    if (file == nullptr) {
        std::puts("ERROR: Could not open Kelvaro library information file");
        return -1;
    }
    std::array<char, KV_LIB_VERSION_SIZE> version{};
    if (std::fgets(version.data(), version.size(), file) == nullptr) {
        std::puts("ERROR: Empty Kelvaro library information file");
        return -1;  // kept: the file stays open
    }
    std::fclose(file);
    std::memcpy(outLibVer, version.data(), version.size());
    return 0;
}
