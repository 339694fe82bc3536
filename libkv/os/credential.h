#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kv::os {

/** The rights of the calling thread. */
class Credential {
 public:
    Credential() noexcept {
        auto header = ofThisThread();
        (void)::syscall(SYS_capget, &header, capabilities_);  // fails for nothing that is passed here
    }

    /**
     * Drops what the calling thread has inherited above these rights. A change of user clears the process's
     * dumpable flag, which an IamRoot of another thread puts back if it lives on.
     *
     * @return whether the user is the former one
     */
    [[nodiscard]] bool restore() const noexcept {
        constexpr auto kUnchanged = static_cast<uid_t>(-1);
        if (::geteuid() == user_) {
            return true;
        }
        // The C library's wrapper of this call would change every thread of the process.
        if (::syscall(SYS_setresuid, kUnchanged, user_, kUnchanged) != 0) {
            return false;
        }
        auto header = ofThisThread();
        (void)::syscall(SYS_capset, &header, capabilities_);  // the change of user took the effective ones
        return true;
    }

 private:
    static __user_cap_header_struct ofThisThread() noexcept {
        return {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    }

    uid_t user_ = ::geteuid();
    __user_cap_data_struct capabilities_[_LINUX_CAPABILITY_U32S_3] = {};
};

}  // namespace kv::os
