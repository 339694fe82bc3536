#include <climits>
#include <thread>

#include <gtest/gtest.h>

#include <kv/threads.h>

namespace {

TEST(KvSemaphore, LetsThroughAsManyAsItWasRaisedAndReportsFailuresAsOne) {
    void* semaphore = kv_createSemaphore(1);
    EXPECT_EQ(kv_waitForSemaphore(semaphore), 0);
    int written = 0;  // ordered by the semaphore alone
    std::thread writer([&] {
        written = 1;
        EXPECT_EQ(kv_releaseSemaphore(semaphore), 0);
    });
    EXPECT_EQ(kv_waitForSemaphore(semaphore), 0);
    EXPECT_EQ(written, 1);
    writer.join();

    EXPECT_EQ(kv_destroySemaphore(semaphore), 0);

    EXPECT_EQ(kv_createSemaphore(-1), nullptr);
    void* full = kv_createSemaphore(INT_MAX);
    EXPECT_EQ(kv_releaseSemaphore(full), 1);
    kv_destroySemaphore(full);
}

TEST(KvMutex, IsCreatedFreeAndHeldByOneThreadAtATime) {
    void* mutex = kv_createMutex(true);
    ASSERT_TRUE(kv_tryLockMutex(mutex)) << "the initial owner is ignored";
    EXPECT_FALSE(kv_tryLockMutex(mutex));
    kv_unlockMutex(mutex);

    kv_destroyMutex(mutex);
    kv_destroyMutex(nullptr);
}

}  // namespace
