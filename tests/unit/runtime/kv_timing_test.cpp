#include <ctime>
#include <limits>
#include <optional>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kv/threads.h>

#include "support/log_capture.h"

using kv::test::error;

namespace {

/** What the library asked the system to sleep. Nothing sleeps in this program. */
std::optional<useconds_t> askedToSleepUs;

}  // namespace

// The linker lets every usleep() of this program end here (--wrap).
extern "C" int __wrap_usleep(useconds_t microseconds) {
    askedToSleepUs = microseconds;
    return 0;
}

namespace {

double monotonicSeconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/** Seconds that an action takes. */
template <typename Action>
double lasting(Action action) {
    const double start = monotonicSeconds();
    action();
    return monotonicSeconds() - start;
}

TEST(Timing, CountsTrueSecondsAndSpinsForAtLeastTheTimeAsked) {
    double elapsed = 0;
    double inner = 0;
    const double outer = lasting([&] {
        const double start = kv_getElapsedTime();
        inner = lasting([] { kv_wait_ns(50'000'000); });
        elapsed = kv_getElapsedTime() - start;
    });
    EXPECT_GE(inner, 0.0499);
    EXPECT_GE(elapsed, inner * 0.999) << "the counter's frequency must be the true one";
    EXPECT_LE(elapsed, outer * 1.001);
    EXPECT_LT(lasting([] { kv_wait_ns(0); }), 0.1);
}

TEST(Timing, SleepsWholeMillisecondsAndSpinsBelowOne) {
    const struct {
        double seconds;
        useconds_t sleptUs;
    } sleeps[] = {{0.001, 1000},           {0.0015, 1000},
                  {1.0019, 1'001'000},     {5000.0, 705'032'704},  // 5e9 modulo 2^32
                  {-0.001, 4'294'966'296}, {std::numeric_limits<double>::infinity(), 4'294'966'296}};
    for (const auto& each : sleeps) {
        askedToSleepUs.reset();
        kv_wait_s(each.seconds);
        EXPECT_EQ(askedToSleepUs, each.sleptUs) << each.seconds << " s";
    }

    askedToSleepUs.reset();
    EXPECT_GE(lasting([] { kv_wait_s(0.0009999); }), 0.00099);
    for (const double seconds : {-0.0009999, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_LT(lasting([seconds] { kv_wait_s(seconds); }), 1.0) << "no wrap to four seconds";
    }
    EXPECT_EQ(askedToSleepUs, std::nullopt);
}

TEST(PortIo, TellsByItsOwnNameThatThereIsNone) {
    kv::test::LogCapture log;
    std::vector<kv::test::Record> expected;
    EXPECT_EQ(kv_inpB(0x80), 0U);
    EXPECT_EQ(kv_inpW(0x80), 0U);
    EXPECT_EQ(kv_inpDW(0x80), 0U);
    kv_outpB(0x80, 1);
    kv_outpW(0x80, 1);
    kv_outpDW(0x80, 1);
    for (const char* name : {"kv_inpB", "kv_inpW", "kv_inpDW", "kv_outpB", "kv_outpW", "kv_outpDW"}) {
        expected.push_back(error(std::string(name) + "() not implemented for aarch64"));
    }
    EXPECT_EQ(log.take(), expected);
}

}  // namespace
