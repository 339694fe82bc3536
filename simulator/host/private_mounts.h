#pragma once

#include <array>
#include <string>

namespace kvsim {

/** Folders of a machine whose files outlast a restart of a program, and a powered machine keeps. */
inline constexpr std::array kStateFolders = {"/dev/shm", "/home/brvn/logs", "/tmp/kelvaro", "/usr/kelvaro"};

/**
 * Gives this process a view of the file system of its own, in which the machine's folders are fresh and empty
 * and everything else stays the desk's. Becomes root of a user namespace where the process is not privileged.
 *
 * The state folders are those below @p stateFolder on the desk, made where they are missing; without one they
 * are fresh as well.
 *
 * Throws MachineUnavailable where the rights are missing, and std::filesystem::filesystem_error where the
 * state folder can't be made.
 */
void enterPrivateMounts(const std::string& stateFolder);

}  // namespace kvsim
