/**
 * @file
 * Root rights for a scope.
 */
#pragma once

#include <brevane/export.h>

namespace brevane {

/**
 * Root rights for the calling thread, from construction to destruction.
 *
 * Only the calling thread's effective user changes (the kernel's rights are per thread); the threads beside
 * it keep theirs. A thread that is created meanwhile inherits root and keeps it, so create threads outside
 * the scope. Objects nest; the rights drop with the outermost one, which must be destroyed by the thread that
 * made it. The effective user, the effective capabilities and, once no thread of the process is raised any
 * more, the process's dumpable flag are then as before. Where the thread is root already, or may not become
 * root, nothing happens, and the privileged call itself fails with the reason. errno is left alone. A thread
 * that can't drop root again ends the process.
 */
class BREVANE_EXPORT IamRoot {
 public:
    IamRoot() noexcept;
    ~IamRoot();
    IamRoot(const IamRoot&) = delete;
    IamRoot& operator=(const IamRoot&) = delete;
};

}  // namespace brevane
