#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "host/mount_points.h"
#include "os/unique_fd.h"

namespace kvsim {

/** Folders of a machine whose files outlast a restart of a program, and a powered machine keeps. */
inline constexpr std::array kStateFolders = {"/dev/shm", "/home/brvn/logs", "/tmp/kelvaro", "/usr/kelvaro"};

/** Whether a path is in a state folder, or is one. */
bool isState(const std::string& path);

/** A folder that is the machine's, and what stands there ends with it. */
struct CoveredFolder {
    std::string path;
    /** Open for reading; it keeps the files for as long as it is open. */
    kv::os::UniqueFd folder;
    /** Why it is the machine's although only a folder below it should be; empty for the others. */
    std::string reason;
};

/** The folders that are mounted where the host may have none, on the host: nothing of it is on a machine yet.
 */
std::vector<MountPlace> claimMountPlaces();

/**
 * Gives this process a view of the file system of its own, in which the machine's folders are fresh and empty
 * and everything else stays the host's. Becomes root of a user namespace where the process is not privileged.
 * Notes what is there from the start in the simulator's account.
 *
 * The state folders are those below @p stateFolder on the host, made where they are missing; without one they
 * are fresh as well.
 *
 * Throws MachineUnavailable where the rights are missing, and std::filesystem::filesystem_error where the
 * state folder can't be made.
 */
std::vector<CoveredFolder> enterPrivateMounts(const std::vector<MountPlace>& places,
                                              const std::string& stateFolder);

/**
 * Takes one of the machine's folders away, which is mounted and so can't be removed: the folder above is
 * covered with its other entries kept. Throws MachineUnavailable.
 */
void hideFolder(const std::filesystem::path& folder);

}  // namespace kvsim
