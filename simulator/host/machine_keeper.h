#pragma once

#include <vector>

#include "host/mount_points.h"
#include "os/unique_fd.h"

namespace kvsim {

/**
 * The process that holds what a machine has taken on the host, for as long as any process is on the machine,
 * and then gives it back. It stands outside the machine's namespaces.
 */
class MachineKeeper {
 public:
    /**
     * Hands it the mount points, and the lock on the state folder where there is one. They are given back at
     * once if this object goes before watch() was called. Throws std::system_error.
     */
    MachineKeeper(std::vector<MountPoint> mountPoints, kv::os::UniqueFd stateLock);

    /**
     * To be called on the machine. The machine ends when these file systems of its own have gone.
     *
     * Returns a descriptor that is at its end when all has been given back. Throws MachineUnavailable.
     */
    kv::os::UniqueFd watch(const std::vector<int>& fileSystems) &&;

 private:
    kv::os::UniqueFd connection_;
};

}  // namespace kvsim
