#include <cerrno>
#include <functional>
#include <future>
#include <sched.h>
#include <set>
#include <stop_token>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kv/threads.h>

#include "os/kept_errno.h"
#include "support/emulator.h"
#include "unit/brevane/process.h"
#include "unit/runtime/threads.h"

using brevane::test::BorrowableRoot;

namespace {

using Cpus = std::set<int>;

Cpus affinityOf(pid_t thread) {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    sched_getaffinity(thread, sizeof mask, &mask);
    Cpus cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &mask)) {
            cpus.insert(cpu);
        }
    }
    return cpus;
}

/** A thread that does something once and then stays. Waiting for it leaves errno alone. */
class Bystander {
 public:
    explicit Bystander(std::function<void()> prepare = [] {}) {
        const kv::os::KeptErrno kept;
        std::promise<pid_t> started;
        auto id = started.get_future();
        thread_ = std::thread([&started, prepare = std::move(prepare), leave = leave_.get_future()] {
            prepare();
            started.set_value(gettid());
            leave.wait();
        });
        id_ = id.get();
    }
    ~Bystander() {
        const kv::os::KeptErrno kept;
        leave_.set_value();
        thread_.join();
    }
    [[nodiscard]] pid_t id() const { return id_; }

 private:
    std::promise<void> leave_;
    std::thread thread_;
    pid_t id_ = 0;
};

/** Needs processors 0 and 1, both allowed to this process. */
class Pinning : public testing::Test {
 protected:
    void SetUp() override {
        sched_getaffinity(0, sizeof formerMask_, &formerMask_);
        if (!all_.contains(0) || !all_.contains(1)) {
            GTEST_SKIP() << "needs the processors 0 and 1";
        }
        errno = E2BIG;
    }
    void TearDown() override {
        if (!IsSkipped()) {
            EXPECT_EQ(errno, E2BIG) << "errno must stay as it was found";
        }
        sched_setaffinity(0, sizeof formerMask_, &formerMask_);
    }

    Cpus withoutCpu1() const {
        Cpus cpus = all_;
        cpus.erase(1);
        return cpus;
    }

    const Cpus all_ = affinityOf(0);
    cpu_set_t formerMask_{};
};

TEST_F(Pinning, MovesTheOtherThreadsOffTheCpu) {
    const Bystander anywhere;
    const Bystander elsewhere([] { EXPECT_EQ(kv_pinThisThreadToCpu(0), 0); });
    EXPECT_EQ(kv_pinThreadExclusiveCpu(1), 0);
    EXPECT_EQ(affinityOf(0), Cpus{1});
    EXPECT_EQ(affinityOf(anywhere.id()), withoutCpu1());
    EXPECT_EQ(affinityOf(elsewhere.id()), Cpus{0});
}

TEST_F(Pinning, RefusesACpuThatIsNotThere) {
    const auto online = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    for (const int missing : {-1, online, CPU_SETSIZE}) {
        errno = E2BIG;
        EXPECT_EQ(kv_pinThreadExclusiveCpu(missing), EINVAL) << missing;
        EXPECT_EQ(errno, E2BIG);
        EXPECT_EQ(kv_pinThisThreadToCpu(missing), -1) << missing;
        EXPECT_EQ(errno, EINVAL) << missing;
    }
    EXPECT_EQ(affinityOf(0), all_);
    errno = E2BIG;
}

TEST_F(Pinning, MovesNobodyWhenOneThreadMayRunOnlyThere) {
    const Bystander anywhere;
    const Bystander bound([] { kv_pinThisThreadToCpu(1); });
    const Bystander later;
    const auto before = kv::test::ofEachThread(affinityOf);
    EXPECT_EQ(kv_pinThreadExclusiveCpu(1), EBUSY);
    EXPECT_EQ(kv::test::ofEachThread(affinityOf), before);
}

TEST_F(Pinning, MovesThreadsOfRootWhileTheCallerMayBecomeRootAndElseStopsAtThem) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, for threads of two users";
    }
    SKIP_IN_EMULATOR("has a thread of its own that stays root");
    const BorrowableRoot borrowable;
    const auto becomeRoot = [] { ASSERT_EQ(syscall(SYS_setresuid, 0, 0, 0), 0); };
    const auto pinAsNobody = [] {
        return std::async(std::launch::async,
                          [] {
                              constexpr uid_t kNobody = brevane::test::kNobody;
                              prctl(PR_SET_KEEPCAPS, 1);  // else it may not move threads that have more
                              EXPECT_EQ(syscall(SYS_setresuid, kNobody, kNobody, kNobody), 0);
                              return kv_pinThreadExclusiveCpu(1);
                          })
            .get();
    };
    const Bystander movable;
    {
        const Bystander root(becomeRoot);
        EXPECT_EQ(kv_pinThreadExclusiveCpu(1), 0);
        EXPECT_EQ(affinityOf(movable.id()), withoutCpu1());
        EXPECT_EQ(affinityOf(root.id()), withoutCpu1());
        EXPECT_EQ(geteuid(), brevane::test::kNobody);
    }
    for (const pid_t thread : {0, movable.id()}) {
        ASSERT_EQ(sched_setaffinity(thread, sizeof formerMask_, &formerMask_), 0);
    }
    {
        const Bystander root(becomeRoot);
        EXPECT_EQ(pinAsNobody(), EPERM);
        EXPECT_EQ(affinityOf(movable.id()), withoutCpu1()) << "moved before the failure, stays moved";
        EXPECT_EQ(affinityOf(root.id()), all_);
    }
    const Bystander rootElsewhere([&] {
        kv_pinThisThreadToCpu(0);
        becomeRoot();
    });
    EXPECT_EQ(pinAsNobody(), 0);
    errno = E2BIG;
}

TEST_F(Pinning, PassesOverThreadsThatEndMeanwhile) {
    const auto startThreads = [this](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::thread([this] { sched_setaffinity(0, sizeof formerMask_, &formerMask_); }).join();
        }
    };
    const std::jthread starters[] = {std::jthread(startThreads), std::jthread(startThreads)};
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(kv_pinThreadExclusiveCpu(1), 0) << "round " << i;
    }
}

}  // namespace
