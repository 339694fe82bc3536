#pragma once

namespace kvsim {

/**
 * Gives this process a view of the file system of its own, in which the machine's folders are fresh and empty
 * and everything else stays the desk's. Becomes root of a user namespace where the process is not privileged.
 *
 * Throws MachineUnavailable where the rights are missing.
 */
void enterPrivateMounts();

}  // namespace kvsim
