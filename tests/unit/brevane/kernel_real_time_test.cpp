#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Kernel.h>

#include "process.h"
#include "support/log_capture.h"

using brevane::Kernel;
using brevane::Model;
using brevane::RunReport;
using brevane::test::kNobody;
using brevane::test::statusNumber;
using kv::test::LogCapture;
using kv::test::Record;
using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryCanBeLocked = false;
#else
constexpr bool kMemoryCanBeLocked = true;
#endif

using Scheduling = std::pair<int, int>;

/** Policy and priority of the calling thread. */
Scheduling scheduling() {
    sched_param parameters{};
    sched_getparam(0, &parameters);
    return {sched_getscheduler(0), parameters.sched_priority};
}

bool schedule(int policy, int priority) {
    const sched_param parameters{priority};
    return sched_setscheduler(0, policy, &parameters) == 0;
}

RunReport runFor(std::chrono::nanoseconds stopTime, const Model& model) {
    Kernel kernel(model);
    kernel.setStopTime(stopTime);
    return kernel.run();
}

std::vector<Record> containing(const std::string& text, std::vector<Record> records) {
    std::erase_if(records, [&](const Record& each) { return each.text.find(text) == std::string::npos; });
    return records;
}

TEST(KernelOverruns, SkipThePeriodsTheyCoverAndAreToldOnce) {
    static int steps = 0;
    Model model;
    model.basePeriod = 5ms;
    model.step = [] {
        if (++steps == 2 || steps == 4) {
            std::this_thread::sleep_for(22ms);
        }
    };
    LogCapture log;
    const RunReport report = runFor(100ms, model);
    EXPECT_GE(report.overruns, 2U);
    EXPECT_GE(report.skippedPeriods, 8U);
    EXPECT_LE(report.steps, 12U) << "of 20 periods, 8 passed without a step";
    EXPECT_GE(report.maxStepTime, 22ms);
    EXPECT_GE(report.maxLatency, report.percentile99Latency);
    EXPECT_GE(report.percentile99Latency, report.medianLatency);

    const auto records = log.take();
    EXPECT_EQ(containing("base periods passed without a step", records).size(), 1U);
    const auto summary = containing("periods were skipped", records);
    ASSERT_EQ(summary.size(), 1U);
    EXPECT_THAT(summary[0].text, HasSubstr(std::to_string(report.overruns) + " of "));
}

TEST(KernelPriority, IsTakenWithBorrowedRightsForTheLoopOnly) {
    if (geteuid() != 0 || !schedule(SCHED_FIFO, 1)) {
        GTEST_SKIP() << "needs root with the right to SCHED_FIFO";
    }
    const Scheduling batch{SCHED_BATCH, 0};
    ASSERT_TRUE(schedule(SCHED_BATCH, 0));
    const brevane::test::BorrowableRoot borrowable;
    ASSERT_TRUE(borrowable);

    static Scheduling initializing, stepping, terminating;
    static uid_t user = 0;
    Model model;
    model.initialize = [] { initializing = scheduling(); };
    model.step = [] {
        stepping = scheduling();
        user = geteuid();
    };
    model.terminate = [] { terminating = scheduling(); };
    EXPECT_TRUE(runFor(1ms, model).realTime);
    EXPECT_EQ(initializing, batch);
    EXPECT_EQ(stepping, Scheduling(SCHED_FIFO, Kernel::kBaseRatePriority));
    EXPECT_EQ(user, kNobody) << "steps must not run as root";
    EXPECT_EQ(terminating, batch);
    EXPECT_EQ(scheduling(), batch);
}

TEST(KernelPriority, IsMissedInOneWarningWithoutTheRights) {
    const rlimit none{0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &none), 0);
    ASSERT_TRUE(brevane::test::giveUpRoot());
    Model model;
    model.step = [] {};
    LogCapture log;
    const RunReport report = runFor(10ms, model);
    EXPECT_FALSE(report.realTime);
    EXPECT_EQ(report.error, "");
    EXPECT_GE(report.steps, 1U);

    const auto warnings = containing("no real-time rights", log.take());
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].severity, kv_warning);
    EXPECT_THAT(warnings[0].text, HasSubstr("(Operation not permitted): running at normal priority"));
}

TEST(KernelMemory, IsLockedInTheLoopOnly) {
    if (geteuid() != 0 || !kMemoryCanBeLocked) {
        GTEST_SKIP() << "needs root, and a program without sanitizers, which never lock memory";
    }
    static long stepping = 0;
    Model model;
    model.step = [] { stepping = statusNumber("/proc/self/status", "VmLck:"); };
    EXPECT_TRUE(runFor(1ms, model).memoryLocked);
    EXPECT_GT(stepping, 0);
    EXPECT_EQ(statusNumber("/proc/self/status", "VmLck:"), 0);
}

}  // namespace
