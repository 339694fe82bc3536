#include "os/shell.h"

#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "os/kept_errno.h"

namespace kv::os {

namespace {

/** Holds SIGCHLD back from the calling thread, for a handler of the host's might wait for the shell. */
class BlockedChildSignal {
 public:
    BlockedChildSignal() noexcept {
        sigset_t childEnded;
        ::sigemptyset(&childEnded);
        ::sigaddset(&childEnded, SIGCHLD);
        ::pthread_sigmask(SIG_BLOCK, &childEnded, &former_);
    }
    ~BlockedChildSignal() { ::pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    BlockedChildSignal(const BlockedChildSignal&) = delete;
    BlockedChildSignal& operator=(const BlockedChildSignal&) = delete;

    [[nodiscard]] const sigset_t& former() const noexcept { return former_; }

 private:
    sigset_t former_;
};

/** @return as posix_spawn(3) */
int startShell(const char* command, const sigset_t& signalMask, pid_t& shell) noexcept {
    posix_spawnattr_t attributes;
    if (const int error = ::posix_spawnattr_init(&attributes); error != 0) {
        return error;
    }
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    ::posix_spawnattr_setsigmask(&attributes, &signalMask);
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    const int error = ::posix_spawn(&shell, "/bin/sh", nullptr, &attributes,
                                    const_cast<char* const*>(arguments), environ);  // which changes none
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

}  // namespace

int runShell(const char* command) {
    const BlockedChildSignal blocked;
    pid_t shell = 0;
    if (const int error = startShell(command, blocked.former(), shell); error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    pid_t ended = 0;
    do {
        ended = ::waitpid(shell, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended < 0 ? -1 : status;
}

}  // namespace kv::os
