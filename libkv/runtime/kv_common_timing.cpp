#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>
#include <unistd.h>

#include <kv/threads.h>

namespace {

constexpr double kNanosecondsPerSecond = 1e9;

/** The processor's monotonic counter. */
#if defined(__aarch64__)
struct TickCounter {
    static uint64_t frequency() {
        uint64_t hertz;
        asm volatile("mrs %0, cntfrq_el0" : "=r"(hertz));
        return hertz;
    }
    static uint64_t now() {
        uint64_t ticks;
        asm volatile("isb\n\tmrs %0, cntvct_el0" : "=r"(ticks)::"memory");  // the barrier: no reading ahead
        return ticks;
    }
};
#else
struct TickCounter {
    static uint64_t frequency() { return 1'000'000'000; }
    static uint64_t now() {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC_RAW, &time);
        return static_cast<uint64_t>(time.tv_sec) * frequency() + static_cast<uint64_t>(time.tv_nsec);
    }
};
#endif

/** Truncates toward zero. What does not fit becomes the nearest bound, what is no number 0. */
template <typename Integer>
Integer saturated(double value) {
    constexpr double kLowest = std::numeric_limits<Integer>::min();
    constexpr double kHighest = std::numeric_limits<Integer>::max();
    return std::isnan(value) ? Integer{0} : static_cast<Integer>(std::clamp(value, kLowest, kHighest));
}

}  // namespace

double kv_times_five(double in) {
    return in * 5.0;
}

uint64_t kv_getTSCFrequency(void) {
    return TickCounter::frequency();
}

void kv_wait_ns(uint32_t delay_ns) {
    const uint64_t start = TickCounter::now();  // before the arithmetic, which is part of the wait
    const auto frequency = static_cast<double>(TickCounter::frequency());
    const auto ticks = static_cast<uint64_t>(frequency * delay_ns / kNanosecondsPerSecond);
    while (TickCounter::now() - start < ticks) {
    }
}

void kv_wait_s(double delay_s) {
    const auto milliseconds = saturated<int32_t>(delay_s * 1000.0);
    if (milliseconds != 0) {
        usleep(static_cast<uint32_t>(milliseconds) * 1000U);  // wraps at 32 bits
        return;
    }
    kv_wait_ns(saturated<uint32_t>(delay_s * kNanosecondsPerSecond));
}

double kv_getElapsedTime(void) {
    return static_cast<double>(TickCounter::now()) / static_cast<double>(TickCounter::frequency());
}
