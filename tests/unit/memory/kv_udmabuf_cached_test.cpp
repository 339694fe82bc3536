#include <utility>

#include <gtest/gtest.h>

#include <kv/memory.h>

#include "support/log_capture.h"

namespace {

bool mutexFails = false;

}  // namespace

extern "C" {
void* __real_kv_createMutex(bool initialOwner);
void* __wrap_kv_createMutex(bool initialOwner);

void* __wrap_kv_createMutex(bool initialOwner) {
    return std::exchange(mutexFails, false) ? nullptr : __real_kv_createMutex(initialOwner);
}
}

namespace {

TEST(CachedBuffer, IsRefusedWhileItsMutexCannotBeMade) {
    kv::test::LogCapture log;
    uintptr_t physical = 1;
    mutexFails = true;
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(&physical), -1);
    mutexFails = true;
    EXPECT_EQ(kv_udmabuf_allocCachedBuffer(1, &physical), nullptr);
    EXPECT_EQ(physical, 0U);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(kv_udmabuf_allocCachedBuffer(1, &physical), nullptr);
    EXPECT_EQ(log.take().back(), kv::test::error("u-dma-buf: Failed to initialize buffer stack."))
        << "the next one goes on to look for the buffer";
}

}  // namespace
