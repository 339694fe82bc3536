#include "real_time.h"

#include <array>
#include <cerrno>
#include <climits>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <brevane/IamRoot.h>

namespace brevane {

namespace {

bool mayLockBeyondTheLimit() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capget, &header, sets) == 0 &&
           (sets[CAP_TO_INDEX(CAP_IPC_LOCK)].effective & CAP_TO_MASK(CAP_IPC_LOCK)) != 0;
}

}  // namespace

RealTimePriority::RealTimePriority(int priority) : formerPolicy_(sched_getscheduler(0)) {
    sched_getparam(0, &formerParameters_);
    sched_param wanted{};
    wanted.sched_priority = priority;
    const IamRoot root;
    if (sched_setscheduler(0, SCHED_FIFO, &wanted) != 0) {
        error_ = errno;
    }
}

RealTimePriority::~RealTimePriority() {
    if (error_ == 0) {
        const IamRoot root;
        sched_setscheduler(0, formerPolicy_, &formerParameters_);
    }
}

LockedMemory::LockedMemory() {
    // Locked memory counts against the limit whenever more is mapped or a stack grows. Rights borrowed for
    // the one call would let the lock succeed and these fail later, so the limit itself has to go.
    getrlimit(RLIMIT_MEMLOCK, &formerLimit_);
    if (formerLimit_.rlim_cur != RLIM_INFINITY && !mayLockBeyondTheLimit()) {
        const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
        const IamRoot root;
        if (setrlimit(RLIMIT_MEMLOCK, &unlimited) != 0) {
            error_ = errno;
            return;
        }
        limitRaised_ = true;
    }
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        error_ = errno;
    }
}

LockedMemory::~LockedMemory() {
    if (error_ == 0) {
        munlockall();
    }
    if (limitRaised_) {
        setrlimit(RLIMIT_MEMLOCK, &formerLimit_);
    }
}

std::vector<int> allowedCpus() {
    // One set has room for 1024 CPUs; the kernel refuses fewer than it may have.
    std::array<cpu_set_t, 16> sets{};
    std::vector<int> cpus;
    if (sched_getaffinity(0, sizeof sets, sets.data()) == 0) {
        for (std::size_t cpu = 0; cpu < CHAR_BIT * sizeof sets; ++cpu) {
            if (CPU_ISSET_S(cpu, sizeof sets, sets.data())) {
                cpus.push_back(static_cast<int>(cpu));
            }
        }
    }
    return cpus;
}

}  // namespace brevane
