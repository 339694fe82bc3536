#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <vector>

#include <kv/diagnostics.h>
#include <kv/threads.h>

#include "os/cancellation.h"
#include "os/directory.h"
#include "runtime/kv_root.h"

namespace {

constexpr const char* kTaskDirectory = "/proc/self/task";
constexpr std::size_t kUsualThreads = 32;
constexpr int kFirstAsyncCpu = 2;  // 0 and 1 belong to the system and to the model

/** The round robin of processors for asynchronous interrupts. */
struct AsyncCpus {
    std::mutex mutex;
    int next = kFirstAsyncCpu;
} asyncCpus;

/* The helpers below return 0 or an error number. */

int collectOtherThreads(std::vector<pid_t>& threads) {
    const pid_t own = gettid();
    const kv::os::DirectoryPtr tasks = kv::os::openDirectory(kTaskDirectory);
    if (tasks == nullptr) {
        return errno;
    }
    try {
        threads.reserve(kUsualThreads);
        while (const dirent* entry = readdir(tasks.get())) {
            if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) {
                continue;
            }
            const auto thread = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
            if (thread >= 1 && thread != own) {
                threads.push_back(thread);
            }
        }
    } catch (const std::bad_alloc&) {
        return errno != 0 ? errno : ENOMEM;
    }
    return 0;
}

int readAffinity(pid_t thread, cpu_set_t& cpus) {
    return sched_getaffinity(thread, sizeof cpus, &cpus) == 0 ? 0 : errno;
}

int checkThatAllMayLeave(int cpu, const std::vector<pid_t>& threads) {
    for (const pid_t thread : threads) {
        cpu_set_t cpus;
        const int error = readAffinity(thread, cpus);
        if (error == ESRCH) {
            continue;  // it has ended meanwhile
        }
        if (error != 0) {
            return error;
        }
        CPU_CLR(cpu, &cpus);
        if (CPU_COUNT(&cpus) == 0) {
            return EBUSY;
        }
    }
    return 0;
}

int moveAway(int cpu, const std::vector<pid_t>& threads) {
    for (const pid_t thread : threads) {
        cpu_set_t cpus;
        const int error = readAffinity(thread, cpus);
        if (error == ESRCH) {
            continue;
        }
        if (error != 0) {
            return error;
        }
        if (!CPU_ISSET(cpu, &cpus)) {
            continue;
        }
        CPU_CLR(cpu, &cpus);
        const kv_beRootObj root;
        if (sched_setaffinity(thread, sizeof cpus, &cpus) != 0 && errno != ESRCH) {
            return errno;
        }
    }
    return 0;
}

int pinExclusively(int cpu) {
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    if (online == 1) {
        return ENOSYS;
    }
    if (cpu < 0 || cpu >= online) {
        return EINVAL;
    }
    std::vector<pid_t> others;
    if (const int error = collectOtherThreads(others); error != 0) {
        return error;
    }
    if (const int error = checkThatAllMayLeave(cpu, others); error != 0) {
        return error;
    }
    if (const int error = moveAway(cpu, others); error != 0) {
        return error;
    }
    (void)kv_pinThisThreadToCpu(cpu);  // the processor is free of the others either way
    return 0;
}

int failWith(int error) {
    errno = error;
    return -1;
}

}  // namespace

int kv_pinThisThreadToCpu(int cpu) {
    const kv_beRootObj root;
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    if (const int error = pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus); error != 0) {
        return failWith(error);
    }
    CPU_ZERO(&cpus);
    if (const int error = pthread_getaffinity_np(pthread_self(), sizeof cpus, &cpus); error != 0) {
        return failWith(error);
    }
    return CPU_ISSET(cpu, &cpus) ? 0 : failWith(EINVAL);
}

int kv_pickNextAsyncCpu(void) {
    const kv::os::CancellationHold hold;
    const auto configured = static_cast<int>(sysconf(_SC_NPROCESSORS_CONF));
    if (configured <= kFirstAsyncCpu) {
        return -1;
    }
    int cpu;
    {
        const std::lock_guard lock(asyncCpus.mutex);
        cpu = asyncCpus.next;
        asyncCpus.next = cpu + 1 < configured ? cpu + 1 : kFirstAsyncCpu;
    }
    kv_printf(kv_debug, "Picked CPU %d for async IRQ\n", cpu);
    return cpu;
}

int kv_pinThreadExclusiveCpu(int cpu) {
    const kv::os::CancellationHold hold;
    const int savedErrno = errno;
    const int result = pinExclusively(cpu);
    errno = savedErrno;
    return result;
}
