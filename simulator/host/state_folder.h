#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "os/unique_fd.h"

namespace kvsim {

/**
 * Locks a state folder for one machine, and makes it where there is none. The lock is held as long as the
 * descriptor, or a copy of it, is open.
 *
 * Throws std::runtime_error, with the process that entered the machine where it still runs, when the folder
 * is in use, and std::filesystem::filesystem_error or std::system_error where it can't be made.
 */
kv::os::UniqueFd lockStateFolder(const std::filesystem::path& folder);

/** The folders on the host that hold a machine's state, opened before the machine's own folders hide them. */
class StateOnHost {
 public:
    /** Throws MachineUnavailable or std::filesystem::filesystem_error. */
    explicit StateOnHost(const std::filesystem::path& folder);

    /** Shows them where the machine has them. Throws MachineUnavailable. */
    void bind() const;

 private:
    std::vector<std::pair<std::string, kv::os::UniqueFd>> folders_;
};

}  // namespace kvsim
