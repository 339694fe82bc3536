#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Kernel.h>

#include "support/log_capture.h"

using brevane::Kernel;
using brevane::Model;
using brevane::RunReport;
using brevane::Trigger;
using brevane::Verdict;
using kv::test::LogCapture;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

/** A board whose interrupts are counted by a descriptor, as the kernel does it for a user-space driver. */
class Board {
 public:
    Board() : fd_(eventfd(0, EFD_CLOEXEC)) {}
    ~Board() { close(fd_); }
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    void fire(std::uint64_t times = 1, Clock::time_point when = Clock::now()) {
        lastFired_ = when;
        EXPECT_EQ(eventfd_write(fd_, times), 0);
    }

    bool await(std::chrono::milliseconds timeout, Trigger& trigger) {
        EXPECT_GE(timeout, 1ms);
        EXPECT_LE(timeout, 100ms);
        ++waits_;
        pollfd interrupt{fd_, POLLIN, 0};
        if (poll(&interrupt, 1, static_cast<int>(timeout.count())) != 1) {
            return false;
        }
        eventfd_t fired = 0;
        EXPECT_EQ(eventfd_read(fd_, &fired), 0);
        trigger = {lastFired_, fired - 1};
        return true;
    }

    [[nodiscard]] int waits() const { return waits_; }

 private:
    int fd_;
    std::atomic<Clock::time_point> lastFired_{Clock::time_point()};
    std::atomic<int> waits_{0};
};

Kernel* running = nullptr;

/** A model on a board of its own, whose step is given its number. */
class KernelTrigger : public testing::Test {
 protected:
    KernelTrigger() {
        self_ = this;
        model_.name = "pump";
        model_.awaitTrigger = [](std::chrono::milliseconds timeout, Trigger& trigger) {
            return self_->board_.await(timeout, trigger);
        };
        model_.step = [] { self_->step_(++self_->steps_); };
    }

    RunReport run(std::chrono::nanoseconds stopTime = 0ns) {
        Kernel kernel(model_);
        kernel.setStopTime(stopTime);
        running = &kernel;
        return kernel.run();
    }

    void waitForTheBoardToBeAwaited() const {
        while (board_.waits() == 0) {
            std::this_thread::sleep_for(1ms);
        }
    }

    static inline KernelTrigger* self_ = nullptr;
    Board board_;
    Model model_;
    std::function<void(int)> step_ = [](int) {};
    int steps_ = 0;
};

TEST_F(KernelTrigger, MeasuresLatencyFromTheMomentItFired) {
    step_ = [&](int number) {
        if (number == 20) {
            running->stop();
        } else {
            board_.fire(1, Clock::now() - (number == 10 ? 80ms : 20ms));
        }
    };
    std::thread starter([&] {
        waitForTheBoardToBeAwaited();
        board_.fire(1, Clock::now() - 20ms);
    });
    const RunReport report = run();
    starter.join();
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.steps, 20U);
    EXPECT_GE(report.latency.front().upTo, 20ms);
    EXPECT_GE(report.medianLatency, 20ms);
    EXPECT_LT(report.medianLatency, 80ms);
    EXPECT_GE(report.percentile999Latency, 80ms);
    EXPECT_EQ(report.overruns, 0U);

    std::ostringstream text;
    text << report;
    EXPECT_THAT(text.str(), AllOf(HasSubstr("\nlatency     "), HasSubstr(" 99.9th percentile, "),
                                  Not(HasSubstr("jitter"))));
}

TEST_F(KernelTrigger, CountsWhatFiredDuringAStepAsSkipped) {
    board_.fire(7);  // before the run, so that no step missed them
    step_ = [&](int number) {
        switch (number) {
            case 1:
                board_.fire(4);
                break;
            case 2:
                board_.fire(1);
                break;
            case 3:
                board_.fire(2);
                break;
            default:
                board_.fire(3);
                running->stop();
        }
    };
    LogCapture log;
    const RunReport report = run();
    EXPECT_EQ(report.steps, 4U);
    EXPECT_EQ(report.overruns, 3U) << "the last step overran too, though the run ended with it";
    EXPECT_EQ(report.skippedPeriods, 6U);
    EXPECT_EQ(report.skippedPercent(), 60);
    EXPECT_EQ(report.verdict(), Verdict::Overran);

    std::string warnings;
    for (const auto& record : log.take()) {
        warnings += record.severity == kv_warning ? record.text + '\n' : "";
    }
    EXPECT_THAT(warnings, AllOf(HasSubstr("Kernel: step 1 began "), Not(HasSubstr("step 3 began ")),
                                HasSubstr("; 3 base periods passed without a step"),
                                HasSubstr("3 of 4 steps overran the base period, 6 periods were skipped")));
}

TEST_F(KernelTrigger, FailsARunInWhichItIsMissingAndNamesItsDevice) {
    struct Silence {
        int stepsBefore;
        std::chrono::nanoseconds timeout, stopTime, period;
        int signal; /**< that ends the run; 0 for none, -1 for stop() */
        const char* error;
    };
    const Silence silences[] = {
        {0, 150ms, 0ns, 0ns, 0, "no trigger from the tachometer in 1.* ms since the start"},
        {2, 150ms, 0ns, 0ns, 0, "no trigger from the tachometer in 1.* ms since step 2"},
        {0, 5s, 150ms, 0ns, 0,
         "no trigger from the tachometer in 1.* since the start, when the run was to end"},
        {0, 5s, 0ns, 0ns, -1,
         "no trigger from the tachometer in .* since the start, when the run was to end"},
        {0, 5s, 0ns, 0ns, SIGINT,
         "no trigger from the tachometer in .* since the start, when the run was to end"},
        {0, 5s, 0ns, 0ns, SIGTERM,
         "no trigger from the tachometer in .* since the start, when the run was to end"},
        {2, 5s, 700ms, 1ms, 0, "no trigger from the tachometer in .* since step 2, when the run was to end"},
        {2, 5s, 700ms, 100ms, 0, ""},
        {2, 5s, 150ms, 0ns, 0, ""},
    };
    model_.triggerDevice = [] { return "the tachometer"; };
    static int left = 0;
    step_ = [&](int) {
        if (--left > 0) {
            board_.fire();
        }
    };
    for (const Silence& silence : silences) {
        SCOPED_TRACE(testing::PrintToString(&silence - silences));
        left = silence.stepsBefore;
        if (left > 0) {
            board_.fire();
        }
        model_.triggerPeriod = silence.period;
        Kernel kernel(model_);
        kernel.setStopTime(silence.stopTime);
        kernel.setTriggerTimeout(silence.timeout);
        std::thread supervisor([&, waitsBefore = board_.waits()] {
            while (silence.signal != 0 && board_.waits() == waitsBefore) {
                std::this_thread::sleep_for(1ms);
            }
            if (silence.signal > 0) {
                kill(getpid(), silence.signal);
            } else if (silence.signal < 0) {
                kernel.stop();
            }
        });
        const RunReport report = kernel.run();
        supervisor.join();
        EXPECT_THAT(report.error, testing::MatchesRegex(silence.error));
        EXPECT_EQ(report.steps, static_cast<unsigned>(silence.stepsBefore));
        EXPECT_EQ(report.verdict(), *silence.error != '\0' ? Verdict::Failed : Verdict::Good);
    }
}

TEST_F(KernelTrigger, EndsTheRunAtTheStopTimeThoughTheBoardGoesOn) {
    board_.fire();
    step_ = [&](int) {
        std::this_thread::sleep_for(1ms);
        board_.fire();
    };
    const auto begin = Clock::now();
    const RunReport report = run(50ms);
    EXPECT_GE(Clock::now() - begin, 50ms);
    EXPECT_GE(report.steps, 1U);
    EXPECT_LE(report.steps, 50U);
}

TEST_F(KernelTrigger, IsAwaitedAgainAfterAWaitInVainUnlessTheModelFailed) {
    static int waits = 0;
    static const char* status = nullptr;
    model_.errorStatus = [] { return status; };
    model_.awaitTrigger = [](std::chrono::milliseconds, Trigger& trigger) {
        trigger = {Clock::now(), 9};
        status = ++waits == 6 ? "board unplugged" : nullptr;
        return waits == 3;
    };
    const RunReport report = run();
    EXPECT_EQ(report.error, "board unplugged");
    EXPECT_EQ(waits, 6);
    EXPECT_EQ(report.steps, 1U);
    EXPECT_EQ(report.skippedPeriods, 0U) << "a wait in vain tells nothing";
}

}  // namespace
