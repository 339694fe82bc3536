// Interrupts of boards that raise them, and whose driver masks them and wakes who waits.

#include <chrono>
#include <csignal>
#include <future>
#include <poll.h>
#include <pthread.h>
#include <semaphore>
#include <thread>

#include "uio_machine.h"

using kv::test::Context;
using kvsim::Machine;
using std::chrono::milliseconds;

namespace {

class UioInterrupt : public kv::test::UioMachine {
 protected:
    static void enable(const Context& context) { EXPECT_EQ(kv_uio_enableInterrupt(context.get()), 0); }
    static void expectInterrupt(const Context& context, int count) {
        EXPECT_EQ(kv_uio_interruptWait(context.get()), 0);
        EXPECT_EQ(context->intCount, count);
    }
};

TEST_F(UioInterrupt, IsMaskedByTheAttachmentAndByComing) {
    const Context context = attached(kFree);
    EXPECT_EQ(commandHigh(kFree), 0x04U);
    board(kFree).setConfig8(5, 0x07);
    EXPECT_EQ(kv_uio_interruptAttach(context.get()), 0);
    EXPECT_EQ(commandHigh(kFree), 0x07U) << "masked already";
    enable(context);
    EXPECT_EQ(commandHigh(kFree), 0x03U) << "the other bits are as they were";
    board(kFree).raiseInterrupt();
    EXPECT_EQ(commandHigh(kFree), 0x07U);
    expectInterrupt(context, 1);
}

TEST_F(UioInterrupt, IsNeitherLostNorDoubled) {
    constexpr int kRounds = 1000;
    const Context context = attached(kFree);
    enable(context);
    std::counting_semaphore served(1);
    std::jthread raising([&served, board = board(kFree)] {
        for (int round = 0; round < kRounds; ++round) {
            served.acquire();
            board.raiseInterrupt();
        }
    });
    int faults = 0;
    for (int round = 1; round <= kRounds; ++round) {
        faults += kv_uio_interruptWait(context.get()) != 0 || context->intCount != round;
        served.release();  // the next one comes before, while or after this one is enabled
        faults += kv_uio_enableInterrupt(context.get()) != 0;
    }
    EXPECT_EQ(faults, 0);
    pollfd uio{.fd = context->uiofd, .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&uio, 1, 0), 0) << "one more";
    EXPECT_EQ(commandHigh(kFree), 0x00U);
}

TEST_F(UioInterrupt, WakesWhoWaitsForItsBoard) {
    const Context first = attached(kFree);
    const Context second = attached(kHeld);
    for (int round = 1; round <= 10; ++round) {
        enable(first);
        enable(second);
        auto waiting = std::async(std::launch::async, kv_uio_interruptWait, first.get());
        board(kHeld).raiseInterrupt();
        expectInterrupt(second, round);
        EXPECT_EQ(waiting.wait_for(milliseconds(5)), std::future_status::timeout);
        board(kFree).raiseInterrupt();
        EXPECT_EQ(waiting.get(), 0);
        EXPECT_EQ(first->intCount, round);
    }
}

TEST_F(UioInterrupt, IsStillToComeAfterASignal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    const Context context = attached(kFree);
    enable(context);
    {
        // Again and again: one may come before the wait.
        const std::jthread signalling([waiter = ::pthread_self()](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                ::pthread_kill(waiter, SIGUSR1);
                std::this_thread::sleep_for(milliseconds(10));
            }
        });
        EXPECT_EQ(kv_uio_interruptWait(context.get()), -EINTR);
    }
    board(kFree).raiseInterrupt();
    expectInterrupt(context, 1);
}

TEST_F(UioInterrupt, FailsForWhoWaitsWhenItsBoardIsTakenAway) {
    const Context context = attached(kFree);
    auto waiting = std::async(std::launch::async, kv_uio_interruptWait, context.get());
    EXPECT_EQ(waiting.wait_for(milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(kv_pci_unbindDriver(&context->pciInfo), 0);
    EXPECT_EQ(waiting.get(), -EIO);
    EXPECT_STREQ(pKvErrorStr, "Interrupt Wait: Failed to read UIO device: Input/output error\n");
    EXPECT_EQ(kv_uio_interruptWait(context.get()), -EIO);
    EXPECT_EQ(kv_uio_interruptEnableFix(context.get()), -EINVAL);

    context->kv_int_fix = {};
    EXPECT_EQ(kv_uio_interruptAttach(context.get()), 0) << "it comes back";
    enable(context);
    board(kFree).raiseInterrupt();
    expectInterrupt(context, 1);
}

TEST_F(UioInterrupt, IsEnabledInTheBoardOnceTheFixIsOn) {
    enum Register : uint32_t { kPeriod = 0x50, kTicks = 0x54, kServed = 0x58, kInterrupts = 0x5C };
    constexpr uint32_t kOthers = 0xF0;
    const Context context = attached(kAnalog);
    const auto analog = board(kAnalog);
    auto* registers = static_cast<uint32_t*>(kv_mapMemory(&context->pciInfo, 0));
    ASSERT_NE(registers, nullptr);
    context->kv_int_fix = {false, registers + kInterrupts / sizeof(uint32_t), 0x01, 3};
    EXPECT_EQ(kv_uio_interruptEnableFix(context.get()), 0);
    EXPECT_EQ(Machine::read(analog.path() + "/fix"), "2 0x3 0x1\n");

    analog.setBarWord(0, kInterrupts, kOthers);
    analog.setBarWord(0, kPeriod, 2'000'000);
    for (int round = 1; round <= 10; ++round) {
        analog.setBarWord(0, kServed, analog.barWord(0, kTicks));
        enable(context);
        expectInterrupt(context, round);
        EXPECT_EQ(analog.barWord(0, kInterrupts), kOthers) << "masked by the driver, in the board";
        EXPECT_EQ(commandHigh(kAnalog), 0x00U) << "not in the command register";
    }

    context->kv_int_fix.target_register = nullptr;
    context->command_high = 0x01;
    enable(context);
    EXPECT_EQ(analog.barWord(0, kInterrupts), kOthers);
    EXPECT_EQ(commandHigh(kAnalog), 0x00U);
}

}  // namespace
