#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <stop_token>
#include <string>
#include <thread>
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
