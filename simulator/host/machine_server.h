#pragma once

#include "kvsim/description.h"
#include "os/unique_fd.h"

namespace kvsim {

/**
 * The process that serves a machine's active files. It stands outside the machine's namespaces, so that they
 * end with the last program, and it ends when they do.
 */
class MachineServer {
 public:
    /** Starts the process, which then waits. To be called before the machine is entered. */
    explicit MachineServer(const MachineDescription& description);

    /**
     * Mounts the active files and has them served. To be called on the machine, when its plain files are
     * written. Throws MachineUnavailable where FUSE is not permitted, and std::runtime_error with the
     * server's reason where the machine can't be made to work.
     */
    void serve();

 private:
    kv::os::UniqueFd connection_;
};

}  // namespace kvsim
