#include <cerrno>
#include <cstdlib>
#include <linux/capability.h>
#include <mutex>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <brevane/IamRoot.h>

namespace brevane {

namespace {

/** Which capabilities a thread has: a word of low bits, a word of high ones. */
using Capabilities = __user_cap_data_struct[_LINUX_CAPABILITY_U32S_3];

struct ThreadRights {
    int depth = 0;
    bool raised = false;
    uid_t formerUser = 0;
    Capabilities formerCapabilities{};
};

thread_local ThreadRights rights;

/**
 * The flag belongs to the process, and the kernel clears it when a thread changes its user. It is read before
 * the first thread is raised and put back after the last one has dropped.
 */
struct DumpableFlag {
    std::mutex mutex;
    int raisedThreads = 0;
    int former = 0;
} dumpable;

__user_cap_header_struct ofThisThread() {
    return {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
}

/** Only the system call itself keeps to the calling thread; the C library's wrapper changes every thread. */
bool setEffectiveUser(uid_t user) {
    constexpr auto kUnchanged = static_cast<uid_t>(-1);
    return syscall(SYS_setresuid, kUnchanged, user, kUnchanged) == 0;
}

bool mayBecomeRoot(uid_t real, uid_t effective, uid_t saved) {
    return effective != 0 && (real == 0 || saved == 0);
}

void raise(uid_t formerUser) {
    const std::lock_guard lock(dumpable.mutex);
    const int former = prctl(PR_GET_DUMPABLE);
    auto header = ofThisThread();
    (void)syscall(SYS_capget, &header, &rights.formerCapabilities);  // fails for nothing that is passed here
    if (!setEffectiveUser(0)) {
        return;
    }
    rights.raised = true;
    rights.formerUser = formerUser;
    if (dumpable.raisedThreads++ == 0) {
        dumpable.former = former;
    }
}

void drop() {
    const std::lock_guard lock(dumpable.mutex);
    if (!setEffectiveUser(rights.formerUser)) {
        std::abort();  // rather than run on as root unasked
    }
    rights.raised = false;
    auto header = ofThisThread();
    (void)syscall(SYS_capset, &header,
                  &rights.formerCapabilities);  // the change of user took the effective ones
    if (--dumpable.raisedThreads == 0) {
        (void)prctl(PR_SET_DUMPABLE, dumpable.former);
    }
}

}  // namespace

IamRoot::IamRoot() noexcept {
    if (rights.depth++ > 0) {
        return;
    }
    const int savedErrno = errno;
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    getresuid(&real, &effective, &saved);
    if (mayBecomeRoot(real, effective, saved)) {
        raise(effective);
    }
    errno = savedErrno;
}

IamRoot::~IamRoot() {
    if (--rights.depth > 0 || !rights.raised) {
        return;
    }
    const int savedErrno = errno;
    drop();
    errno = savedErrno;
}

}  // namespace brevane
