#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <sys/time.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <brevane/Kernel.h>

using brevane::Kernel;
using brevane::Model;
using brevane::RunReport;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> steps{0};

void waitForSteps(int count) {
    while (steps < count) {
        std::this_thread::sleep_for(1ms);
    }
}

Model countingModel() {
    Model model;
    model.step = [] { ++steps; };
    return model;
}

void formerHandler(int) {}

void installFormerHandler(int signal) {
    struct sigaction action {};
    action.sa_handler = formerHandler;
    sigaction(signal, &action, nullptr);
}

bool formerHandlerIsBack(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == formerHandler;
}

TEST(KernelStop, ComesWhenTheTimeIsUpAndNotFromABrokenPipe) {
    installFormerHandler(SIGPIPE);
    Model model = countingModel();
    model.step = [] {
        ++steps;
        std::raise(SIGPIPE);
    };
    Kernel kernel(model);
    kernel.setStopTime(20ms);
    const RunReport report = kernel.run();
    EXPECT_EQ(report.error, "");
    EXPECT_GE(report.steps + report.skippedPeriods, 20U);
    EXPECT_LE(report.steps, 20U);
    EXPECT_EQ(report.steps, static_cast<std::uint64_t>(steps));
    EXPECT_GE(report.duration, 19ms) << "the last step is due one base period before the end";
    EXPECT_TRUE(formerHandlerIsBack(SIGPIPE));
}

TEST(KernelStop, ComesFromAnotherThread) {
    Kernel kernel(countingModel());
    std::thread supervisor([&] {
        waitForSteps(5);
        kernel.stop();
    });
    EXPECT_GE(kernel.run().steps, 5U);
    supervisor.join();
}

TEST(KernelStop, BeforeTheRunLeavesNoStepToTake) {
    static bool terminated = false;
    Model model = countingModel();
    model.terminate = [] { terminated = true; };
    Kernel kernel(model);
    kernel.stop();
    const RunReport report = kernel.run();
    EXPECT_EQ(report.steps, 0U);
    EXPECT_EQ(report.error, "the run ended before its first step");
    EXPECT_TRUE(terminated);
}

TEST(KernelStop, ComesFromASignalWhateverTheBasePeriod) {
    for (const int signal : {SIGINT, SIGTERM}) {
        installFormerHandler(signal);
        Model model = countingModel();
        model.basePeriod = 1h;
        steps = 0;
        std::atomic<bool> ended{false};
        std::thread terminal([&, baseRateThread = pthread_self()] {
            waitForSteps(1);
            // One that comes just before the wait can't end it, so they are sent until the run is over.
            while (!ended) {
                pthread_kill(baseRateThread, signal);
                std::this_thread::sleep_for(5ms);
            }
        });
        const RunReport report = Kernel(model).run();
        ended = true;
        terminal.join();
        EXPECT_EQ(report.error, "");
        EXPECT_EQ(report.steps, 1U);
        EXPECT_TRUE(formerHandlerIsBack(signal));
    }
}

TEST(KernelStop, AfterAPauseCountsThePeriodsThatPassedInIt) {
    static Kernel* running = nullptr;
    Model model;
    model.basePeriod = 20ms;
    model.step = [] {
        const itimerval once{{0, 0}, {0, 5000}};
        setitimer(ITIMER_REAL, &once, nullptr);
    };
    Kernel kernel(model);
    running = &kernel;
    // The process is held up as it waits for its next step, and is told to stop as soon as it goes on.
    std::signal(SIGALRM, [](int) {
        const timespec pause{0, 100'000'000};
        nanosleep(&pause, nullptr);
        running->stop();
    });
    EXPECT_GE(kernel.run().skippedPeriods, 4U);
}

TEST(KernelGrid, HoldsStepsBackWhenOtherSignalsInterruptTheWait) {
    static std::vector<Clock::time_point> starts;
    Model model;
    model.basePeriod = 20ms;
    model.step = [] { starts.push_back(Clock::now()); };
    Kernel kernel(model);
    kernel.setStopTime(100ms);

    installFormerHandler(SIGALRM);
    const itimerval everyMillisecond{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
    const auto origin = Clock::now();
    kernel.run();
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);

    ASSERT_GE(starts.size(), 1U);
    for (std::size_t i = 0; i < starts.size(); ++i) {
        EXPECT_GE(starts[i] - origin, i * model.basePeriod) << "step " << i;
    }
}

}  // namespace
