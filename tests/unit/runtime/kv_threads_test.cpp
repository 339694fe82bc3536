#include <array>
#include <chrono>
#include <map>
#include <sched.h>
#include <stop_token>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/threads.h>

#include "support/log_capture.h"
#include "unit/brevane/process.h"
#include "unit/runtime/threads.h"

using brevane::test::kNobody;
using kv::test::debug;
using kv::test::error;
using testing::ElementsAre;

namespace {

/** Effective user of each thread of the process. */
std::map<pid_t, uid_t> effectiveUsers() {
    return kv::test::ofEachThread([](pid_t thread) {
        const std::string status = "/proc/self/task/" + std::to_string(thread) + "/status";
        return static_cast<uid_t>(brevane::test::statusNumber(status, "Uid:", 1));
    });
}

/** A driver's thread that tells about itself and then waits until it is cancelled. */
struct Worker {
    ~Worker() { kv_destroySemaphore(ready); }

    void* start() {
        void* handle = kv_createThread(run, this);
        if (handle != nullptr) {
            kv_waitForSemaphore(ready);
        }
        return handle;
    }

    static void* run(void* argument) {
        auto* self = static_cast<Worker*>(argument);
        const struct Unwinding {
            bool& done;
            ~Unwinding() {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                done = true;
            }
        } unwinding{self->unwound};
        self->thread = gettid();
        self->users = effectiveUsers();
        kv_releaseSemaphore(self->ready);
        pause();
        return nullptr;
    }

    void* ready = kv_createSemaphore(0);
    pid_t thread = 0;
    std::map<pid_t, uid_t> users;
    bool unwound = false;
};

TEST(KvThread, RunsAtTheLowestPriorityUntilRaisedAndIsUnwoundBeforeDestroyReturns) {
    if (!kv::test::mayRunRealTime()) {
        GTEST_SKIP() << "needs the right to real-time scheduling";
    }
    kv::test::LogCapture log;
    Worker worker;
    void* handle = worker.start();
    ASSERT_NE(handle, nullptr);
    EXPECT_THAT(log.take(), ElementsAre(debug("created thread with prio 1")));
    EXPECT_EQ(kv_getPidPriority(worker.thread), 1);
    EXPECT_EQ(kv_setPidPriority(worker.thread, 42), 0);
    EXPECT_EQ(kv_setPidPriority(worker.thread, 100), -1);
    EXPECT_THAT(log.take(), ElementsAre(error("Elevating thread " + std::to_string(worker.thread) +
                                              " to 100, sched_setscheduler returns -1: Unknown error -1")));
    EXPECT_EQ(kv_getPidPriority(worker.thread), 42);
    sched_param parameters{};
    parameters.sched_priority = 7;
    ASSERT_EQ(sched_setscheduler(worker.thread, SCHED_RR | SCHED_RESET_ON_FORK, &parameters), 0);
    EXPECT_EQ(kv_getPidPriority(worker.thread), 7) << "also where its children start as ordinary threads";
    EXPECT_EQ(kv_getPidPriority(gettid()), 0) << "an ordinary thread";

    EXPECT_EQ(kv_destroyThread(handle), 0);
    EXPECT_TRUE(worker.unwound);
    EXPECT_EQ(kv_getPidPriority(worker.thread), -1) << "it has ended";
}

TEST(KvThread, IsRefusedWithTheReasonWhereTheRightsAreMissing) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);
    ASSERT_TRUE(brevane::test::giveUpRoot());
    kv::test::LogCapture log;
    EXPECT_EQ(Worker().start(), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(error("pthread_create returns 1: Operation not permitted")));
    EXPECT_EQ(kv_setPidPriority(0, 1), -1);
}

TEST(KvThread, DoesNotKeepTheRootRightsThatItsCreationTook) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user who may become root again";
    }
    const brevane::test::BorrowableRoot borrowable;
    const std::jthread bystander([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const auto everyoneNobody = effectiveUsers();
    ASSERT_EQ(everyoneNobody.at(gettid()), kNobody);

    prctl(PR_SET_DUMPABLE, 1);
    Worker worker;
    void* handle = worker.start();
    ASSERT_NE(handle, nullptr) << "the rights for it could be had";
    EXPECT_EQ(kv_setPidPriority(worker.thread, 2), 0);
    auto withWorker = everyoneNobody;
    withWorker[worker.thread] = kNobody;
    EXPECT_EQ(effectiveUsers(), withWorker);

    // The creator may have been root still while the new thread looked; nobody else ever was.
    worker.users.erase(gettid());
    withWorker.erase(gettid());
    EXPECT_EQ(worker.users, withWorker);

    const kv::test::LogCapture quiet;
    for (int round = 0; round < 400; ++round) {
        std::array<void*, 5> oneAfterTheOther{};
        for (void*& next : oneAfterTheOther) {
            next = kv_createThread([](void*) -> void* { return nullptr; }, nullptr);
        }
        for (void* each : oneAfterTheOther) {
            kv_destroyThread(each);
        }
    }
    kv_destroyThread(handle);
    EXPECT_EQ(effectiveUsers(), everyoneNobody);
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
}

}  // namespace
