#include <cerrno>
#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>

#include <brevane/IamRoot.h>

namespace brevane {

namespace {

struct ThreadRights {
    int depth = 0;
    bool raised = false;
    uid_t formerUser = 0;
};

thread_local ThreadRights rights;

/** Only the system call itself keeps to the calling thread; the C library's wrapper changes every thread. */
bool setEffectiveUser(uid_t user) {
    constexpr auto kUnchanged = static_cast<uid_t>(-1);
    return syscall(SYS_setresuid, kUnchanged, user, kUnchanged) == 0;
}

bool mayBecomeRoot(uid_t real, uid_t effective, uid_t saved) {
    return effective != 0 && (real == 0 || saved == 0);
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
    if (mayBecomeRoot(real, effective, saved) && setEffectiveUser(0)) {
        rights.raised = true;
        rights.formerUser = effective;
    }
    errno = savedErrno;
}

IamRoot::~IamRoot() {
    if (--rights.depth > 0 || !rights.raised) {
        return;
    }
    const int savedErrno = errno;
    if (!setEffectiveUser(rights.formerUser)) {
        std::abort();  // rather than run on as root unasked
    }
    rights.raised = false;
    errno = savedErrno;
}

}  // namespace brevane
