#include <atomic>
#include <ctime>
#include <mutex>
#include <pthread.h>

#include <kv/threads.h>

#include "runtime/kv_runtime_internal.h"

namespace {

constexpr long kWaitNs = 100'000;
constexpr long kNsPerSecond = 1'000'000'000;

/** Never destroyed, so threads may still wait while the process ends. */
struct BaseRate {
    std::atomic<bool> started{false};
    std::mutex mutex;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
} baseRate;

timespec waitDeadline() {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += kWaitNs;
    if (deadline.tv_nsec >= kNsPerSecond) {
        deadline.tv_nsec -= kNsPerSecond;
        ++deadline.tv_sec;
    }
    return deadline;
}

/** Apart from its caller, whose way after the signal is one load. */
[[gnu::noinline]] int waitBriefly() {
    const timespec deadline = waitDeadline();
    const std::lock_guard lock(baseRate.mutex);
    while (!baseRate.started.load(std::memory_order_relaxed)) {
        if (pthread_cond_timedwait(&baseRate.condition, baseRate.mutex.native_handle(), &deadline) != 0) {
            return -1;
        }
    }
    return 0;
}

[[maybe_unused]] const bool registered =
    brevane::Service::doRegister("KelvaroSyncService", [] { return brevane::KelvaroSyncService::create(); });

}  // namespace

int kv_waitForBaseRateSync(void) {
    if (baseRate.started.load(std::memory_order_acquire)) {
        return 0;
    }
    return waitBriefly();
}

void kv_signalBaseRateSync(void) {
    if (baseRate.started.load(std::memory_order_acquire)) {
        return;
    }
    const std::lock_guard lock(baseRate.mutex);
    baseRate.started.store(true, std::memory_order_release);
    pthread_cond_broadcast(&baseRate.condition);
}

namespace brevane {

std::unique_ptr<Service> KelvaroSyncService::create() {
    return std::make_unique<KelvaroSyncService>();
}

void KelvaroSyncService::initialize() {}

void KelvaroSyncService::start() {
    kv_signalBaseRateSync();
}

void KelvaroSyncService::stop() {
    kv_signalBaseRateSync();
}

}  // namespace brevane
