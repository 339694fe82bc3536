#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <brevane/Kernel.h>
#include <kv/threads.h>

#include "runtime/kv_runtime_internal.h"
#include "unit/runtime/threads.h"

namespace {

TEST(BaseRate, IsWaitedForBrieflyUntilItsServiceStopsEvenWithoutHavingStarted) {
    const auto service = brevane::KelvaroSyncService::create();
    service->initialize();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kv_waitForBaseRateSync(), -1);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::microseconds(90));
    EXPECT_LT(waited, std::chrono::seconds(1));
    service->stop();
    EXPECT_EQ(kv_waitForBaseRateSync(), 0);
}

TEST(BaseRate, ReleasesEveryThreadThatPollsForIt) {
    ASSERT_NE(kv_waitForBaseRateSync(), 0) << "another test of this process has started the base rate";
    std::atomic<int> timedOut{0};
    int prepared = 0;  // written before the signal, read after the wait: ordered by these two alone
    std::vector<std::jthread> workers;
    for (int i = 0; i < 16; ++i) {
        workers.emplace_back([&] {
            while (kv_waitForBaseRateSync() != 0) {
                ++timedOut;
            }
            EXPECT_EQ(prepared, 1);
        });
    }
    while (timedOut < 64) {
        std::this_thread::yield();
    }
    prepared = 1;
    kv_signalBaseRateSync();
    workers.clear();
}

TEST(BaseRate, StartsWithTheModelUnderTheKernel) {
    static int duringInitialisation = 7;
    static int duringStep = 7;
    static brevane::Kernel* kernel = nullptr;
    brevane::Model model;
    model.initialize = [] { duringInitialisation = kv_waitForBaseRateSync(); };
    model.step = [] {
        duringStep = kv_waitForBaseRateSync();
        kernel->stop();
    };
    brevane::Kernel running(model);
    kernel = &running;
    EXPECT_EQ(running.run().error, "");
    EXPECT_EQ(duringInitialisation, -1);
    EXPECT_EQ(duringStep, 0);
}

TEST(BaseRate, SurvivesTheCancellationOfAWaitingThread) {
    if (!kv::test::mayRunRealTime()) {
        GTEST_SKIP() << "needs the right to real-time scheduling";
    }
    const auto poll = [](void*) -> void* {
        while (kv_waitForBaseRateSync() != 0) {
        }
        return nullptr;
    };
    for (int i = 0; i < 50; ++i) {
        void* waiter = kv_createThread(poll, nullptr);
        ASSERT_NE(waiter, nullptr);
        (void)kv_waitForBaseRateSync();  // lets the waiter come to its wait
        ASSERT_EQ(kv_destroyThread(waiter), 0);
    }
    kv_signalBaseRateSync();  // hangs where a cancelled waiter has kept the lock
    EXPECT_EQ(kv_waitForBaseRateSync(), 0);
}

}  // namespace
