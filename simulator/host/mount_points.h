#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "os/unique_fd.h"

namespace kvsim {

/** A folder that is on the host only for machines to be mounted on, and a shared lock on it. */
struct MountPoint {
    std::string path;
    kv::os::UniqueFd lock;
};

/** Where on the host a folder of the machine can be mounted. */
struct MountPlace {
    std::filesystem::path folder;
    /** Those of the folder and the folders above it that machines have made, the outermost first. */
    std::vector<MountPoint> made = {};
    /** The first folder on the way that can't be used, and why. Empty where the folder can be mounted on. */
    std::filesystem::path obstacle = {};
    std::string reason = {};
};

/**
 * Finds the host's folder, or makes it. What is made carries a mark, so that every later machine knows that
 * it is nobody's work, and takes a shared lock as this one does.
 *
 * Where everybody may write, only a real folder is used that belongs to this user or to root: anybody else
 * could take it away from under the machine and put another in its place.
 */
MountPlace claimMountPlace(const std::filesystem::path& folder);

/** Removes what machines made, unless it is not empty, or another machine has a lock on it. */
void releaseMountPoints(std::vector<MountPoint>& points);

}  // namespace kvsim
