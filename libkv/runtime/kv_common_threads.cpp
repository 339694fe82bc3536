#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <kv/diagnostics.h>
#include <kv/threads.h>

#include "os/cancellation.h"
#include "os/credential.h"
#include "runtime/kv_root.h"

namespace {

/** What a new thread takes over from its creator, on whose stack it lies until the rights are dropped. */
struct ThreadStart {
    ThreadStart(void* (*runs)(void*), void* with) : function(runs), argument(with) {
        sem_init(&rightsDropped, 0, 0);  // fails for nothing that is passed here
    }
    ~ThreadStart() { sem_destroy(&rightsDropped); }
    ThreadStart(const ThreadStart&) = delete;
    ThreadStart& operator=(const ThreadStart&) = delete;

    void waitUntilRightsAreDropped() {
        while (sem_wait(&rightsDropped) != 0) {  // a signal handler has run
        }
    }

    void* (*function)(void*);
    void* argument;
    kv::os::Credential credential;
    sem_t rightsDropped{};
};

void* runThread(void* record) {
    auto& start = *static_cast<ThreadStart*>(record);
    if (!start.credential.restore()) {
        std::abort();  // rather than run on as root unasked
    }
    const auto function = start.function;
    auto* const argument = start.argument;
    sem_post(&start.rightsDropped);  // from here on the record may be gone
    return function(argument);
}

/** Asks for SCHED_FIFO at @p priority whatever the creating thread runs at. A failing step is logged. */
bool initialiseAttributes(pthread_attr_t& attributes, int priority) {
    if (const int result = pthread_attr_init(&attributes); result != 0) {
        kv_printf(kv_error, "pthread_attr_init returns %d\n", result);
        return false;
    }
    if (const int result = pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED); result != 0) {
        kv_printf(kv_error, "pthread_attr_setinheritsched returns %d\n", result);
        return false;
    }
    if (const int result = pthread_attr_setschedpolicy(&attributes, SCHED_FIFO); result != 0) {
        kv_printf(kv_error, "pthread_attr_setschedpolicy returns %d\n", result);
        return false;
    }
    sched_param parameters{};
    if (const int result = pthread_attr_getschedparam(&attributes, &parameters); result != 0) {
        kv_printf(kv_error, "pthread_attr_getschedparam returns %d\n", result);
        return false;
    }
    parameters.sched_priority = priority;
    if (const int result = pthread_attr_setschedparam(&attributes, &parameters); result != 0) {
        kv_printf(kv_error, "pthread_attr_setschedparam returns %d with prio %d\n", result, priority);
        return false;
    }
    return true;
}

/**
 * The new thread drops its root rights while the creator still has them: whoever is root last puts the
 * process's dumpable flag back, and nothing may clear it after that.
 *
 * @return 0 or an error number
 */
int createAsRoot(pthread_t& thread, const pthread_attr_t& attributes, void* (*function)(void*),
                 void* argument) {
    ThreadStart start(function, argument);
    const kv_beRootObj root;
    const int result = pthread_create(&thread, &attributes, runThread, &start);
    if (result == 0) {
        start.waitUntilRightsAreDropped();
    }
    return result;
}

/** Starts a thread at the lowest priority of SCHED_FIFO. A failure is logged. */
bool startRealTime(pthread_t& thread, void* (*function)(void*), void* argument) {
    const int priority = sched_get_priority_min(SCHED_FIFO);
    pthread_attr_t attributes;  // kept: never destroyed, it owns nothing
    if (!initialiseAttributes(attributes, priority)) {
        return false;
    }
    const int result = createAsRoot(thread, attributes, function, argument);
    if (result != 0) {
        kv_printf(kv_error, "pthread_create returns %d: %s\n", result, std::strerror(result));
        return false;
    }
    kv_printf(kv_debug, "created thread with prio %d\n", priority);
    return true;
}

}  // namespace

void* kv_createThread(void* (*func)(void*), void* arg) {
    const kv::os::CancellationHold hold;
    auto* thread = new (std::nothrow) pthread_t;
    if (thread == nullptr || !startRealTime(*thread, func, arg)) {
        // Kept: after a failed start the handle stays allocated.
        return nullptr;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
    }
    return thread;
}

int kv_destroyThread(void* handler) {
    const kv::os::CancellationHold hold;
    const std::unique_ptr<pthread_t> thread(static_cast<pthread_t*>(handler));
    const int result = pthread_cancel(*thread);
    if (result == 0) {
        pthread_join(*thread, nullptr);
    }
    return result;
}

int kv_setPidPriority(pid_t pid, int priority) {
    const kv::os::CancellationHold hold;
    sched_param parameters{};
    parameters.sched_priority = priority;
    const int result = [&] {
        const kv_beRootObj root;
        return sched_setscheduler(pid, SCHED_FIFO, &parameters);
    }();
    if (result != 0) {
        // Kept: the text is that of the result, not of errno. Log readers know it as "Unknown error -1".
        kv_printf(kv_error, "Elevating thread %d to %d, sched_setscheduler returns %d: %s\n", pid, priority,
                  result, std::strerror(result));
        return -1;
    }
    return 0;
}

int kv_getPidPriority(pid_t pid) {
    sched_param parameters{};
    if (sched_getparam(pid, &parameters) != 0) {
        return -1;
    }
    const int policyAndFlags = sched_getscheduler(pid);
    if (policyAndFlags < 0) {
        return -1;
    }
    const int policy = policyAndFlags & ~SCHED_RESET_ON_FORK;
    return policy == SCHED_FIFO || policy == SCHED_RR ? parameters.sched_priority : 0;
}
