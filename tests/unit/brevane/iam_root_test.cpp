#include <cerrno>
#include <chrono>
#include <filesystem>
#include <linux/capability.h>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include <gtest/gtest.h>

#include <brevane/IamRoot.h>

#include "process.h"

using brevane::IamRoot;
using brevane::test::BorrowableRoot;
using brevane::test::giveUpRoot;
using brevane::test::kNobody;
using brevane::test::statusNumber;

namespace {

/** Effective user of each thread of the process. */
std::map<pid_t, uid_t> effectiveUsers() {
    std::map<pid_t, uid_t> users;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const long user = statusNumber(task.path() / "status", "Uid:", 1);
        users[std::stoi(task.path().filename())] = static_cast<uid_t>(user);
    }
    return users;
}

/** What a borrowed root changes: of the calling thread the effective user and capabilities, of the process a
 * flag. */
auto credential() {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3] = {};
    syscall(SYS_capget, &header, capabilities);
    return std::tuple(geteuid(), capabilities[0].effective, capabilities[1].effective,
                      prctl(PR_GET_DUMPABLE));
}

/** Lets the calling thread alone have a capability that it may have. */
bool haveEffective(unsigned capability) {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3] = {};
    syscall(SYS_capget, &header, capabilities);
    capabilities[0].effective = 1U << capability;
    return syscall(SYS_capset, &header, capabilities) == 0;
}

void idle(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST(IamRoot, RaisesTheCallingThreadAloneUntilTheOutermostObjectEnds) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user who may become root again";
    }
    const BorrowableRoot borrowable;
    ASSERT_TRUE(borrowable);
    const std::jthread others[] = {std::jthread(idle), std::jthread(idle)};
    const auto everyoneNobody = effectiveUsers();
    ASSERT_GE(everyoneNobody.size(), 3U);
    ASSERT_EQ(everyoneNobody.at(gettid()), kNobody);
    auto onlyThisThreadRoot = everyoneNobody;
    onlyThisThreadRoot[gettid()] = 0;

    ASSERT_TRUE(haveEffective(CAP_SYS_NICE));
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    const auto before = credential();
    errno = E2BIG;
    {
        const IamRoot outer;
        EXPECT_EQ(errno, E2BIG);
        EXPECT_EQ(effectiveUsers(), onlyThisThreadRoot);
        {
            const IamRoot inner;
            EXPECT_EQ(effectiveUsers(), onlyThisThreadRoot);
        }
        EXPECT_EQ(effectiveUsers(), onlyThisThreadRoot) << "the inner object must not drop the rights";
        errno = E2BIG;
    }
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(effectiveUsers(), everyoneNobody);
    EXPECT_EQ(credential(), before);

    // The process stays undumpable until its last thread has dropped root.
    auto outer = std::make_optional<IamRoot>();
    std::thread([] { const IamRoot root; }).join();
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), 0);
    outer.reset();
    EXPECT_EQ(credential(), before);
}

TEST(IamRoot, LeavesRootAndThoseWhoMayNotBecomeRootAlone) {
    const auto before = effectiveUsers();
    {
        const IamRoot root;
        EXPECT_EQ(effectiveUsers(), before);
    }
    EXPECT_EQ(effectiveUsers(), before);

    ASSERT_TRUE(giveUpRoot());
    errno = E2BIG;
    const IamRoot refused;
    EXPECT_EQ(errno, E2BIG);
    EXPECT_NE(geteuid(), 0U);
}

}  // namespace
