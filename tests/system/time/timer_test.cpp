#include <algorithm>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <sched.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kv/threads.h>

namespace {

double now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/** The counter that every processor has. */
uint64_t counter() {
    uint64_t ticks = 0;
    asm volatile("isb\n\tmrs %0, cntvct_el0" : "=r"(ticks));
    return ticks;
}

/** The library's time and the counter, and what the kernel's clock showed before and after they were read. */
struct Reading {
    double before;
    double elapsed;
    uint64_t ticks;
    double after;

    static Reading take() {
        const double before = now(CLOCK_MONOTONIC);
        const double elapsed = kv_getElapsedTime();
        const uint64_t ticks = counter();
        return {before, elapsed, ticks, now(CLOCK_MONOTONIC)};
    }

    /** The tightest of many: an emulated processor may be halted between any two instructions. */
    static Reading best() {
        Reading best = take();
        for (int attempt = 0; attempt < 1000; ++attempt) {
            const Reading next = take();
            best = next.after - next.before < best.after - best.before ? next : best;
        }
        return best;
    }
};

void runOn(int cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<std::size_t>(cpu), &cpus);
    ASSERT_EQ(sched_setaffinity(0, sizeof cpus, &cpus), 0) << "CPU " << cpu;
}

TEST(GenericTimer, KeepsTheTimeOfTheKernelsClock) {
    std::string source;
    std::ifstream("/sys/devices/system/clocksource/clocksource0/current_clocksource") >> source;
    ASSERT_EQ(source, "arch_sys_counter");

    const Reading start = Reading::best();
    sleep(1);
    const Reading end = Reading::best();
    const double elapsed = end.elapsed - start.elapsed;
    EXPECT_GE(elapsed, (end.before - start.after) * 0.999) << kv_getTSCFrequency() << " Hz";
    EXPECT_LE(elapsed, (end.after - start.before) * 1.001) << kv_getTSCFrequency() << " Hz";
    EXPECT_NEAR(static_cast<double>(end.ticks - start.ticks) / static_cast<double>(kv_getTSCFrequency()),
                elapsed, elapsed * 0.001);

    // The counter starts with the machine, shortly before the kernel does.
    const double booted = now(CLOCK_BOOTTIME);
    EXPECT_GE(kv_getElapsedTime(), booted);
    EXPECT_LT(kv_getElapsedTime(), booted + 20);
}

TEST(GenericTimer, IsOneForAllProcessors) {
    const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    ASSERT_GT(cpus, 1);
    const uint64_t frequency = kv_getTSCFrequency();
    double last = kv_getElapsedTime();
    for (int hop = 0; hop < 200; ++hop) {
        ASSERT_NO_FATAL_FAILURE(runOn(hop % static_cast<int>(cpus)));
        EXPECT_EQ(kv_getTSCFrequency(), frequency);
        const double next = kv_getElapsedTime();
        ASSERT_GT(next, last) << "hop " << hop;
        last = next;
    }
}

TEST(GenericTimer, WaitsAtLeastAsLongByTheKernelsClock) {
    const struct {
        double seconds;
        void (*wait)(double seconds);
    } waits[] = {{500e-9, [](double seconds) { kv_wait_ns(static_cast<uint32_t>(seconds * 1e9)); }},
                 {250e-6, [](double seconds) { kv_wait_ns(static_cast<uint32_t>(seconds * 1e9)); }},
                 {900e-6, kv_wait_s},
                 {20e-3, kv_wait_s}};
    for (const auto& each : waits) {
        double shortest = 1e9;
        for (int round = 0; round < 10; ++round) {
            const double start = now(CLOCK_MONOTONIC);
            each.wait(each.seconds);
            shortest = std::min(shortest, now(CLOCK_MONOTONIC) - start);
        }
        EXPECT_GE(shortest, each.seconds * 0.999);
        EXPECT_LT(shortest, each.seconds * 1.5 + 100e-6);
    }
}

}  // namespace
