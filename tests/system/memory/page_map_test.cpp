// Where a page is, compared with what the kernel says of it elsewhere.

#include <sys/mman.h>

#include <gtest/gtest.h>

#include <kv/memory.h>

#include "kernel_view.h"
#include "support/child_process.h"

using kv::test::inChild;
using kv::test::kernelNumberAt;
using kv::test::kPageBytes;

namespace {

namespace fs = std::filesystem;

// The kernel has no pages for them, so the page map leaves them out.
TEST(PageMap, KnowsNothingOfRegisters) {
    int boards = 0;
    for (const auto& board : fs::directory_iterator("/sys/bus/pci/devices")) {
        const int file = ::open((board.path() / "resource0").c_str(), O_RDWR | O_SYNC | O_CLOEXEC);
        void* mapping = ::mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ::close(file);
        if (mapping != MAP_FAILED) {
            EXPECT_EQ(kv_getPhysicalBufferAddr(static_cast<char*>(mapping) + 0x123), 0x123U) << board.path();
            ::munmap(mapping, kPageBytes);
            ++boards;
        }
    }
    EXPECT_GT(boards, 0);
}

uint64_t mappersOf(uintptr_t physical) {
    return kernelNumberAt("/proc/kpagecount", physical / kPageBytes).value_or(0);
}

// After a fork both processes have the same page, which the first write ends.
TEST(PageMap, FollowsAPageOfTheProcessWhenItMoves) {
    void* pages = ::mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    auto* const memory = static_cast<volatile char*>(pages) + 0x123;
    const auto physical = [memory] { return kv_getPhysicalBufferAddr(const_cast<char*>(memory)); };
    EXPECT_EQ(physical(), 0x123U) << "not there yet";

    *memory = 1;
    const uintptr_t place = physical();
    EXPECT_EQ(place % kPageBytes, 0x123U);
    EXPECT_EQ(mappersOf(place), 1U);
    const int child = inChild([&] {
        EXPECT_EQ(physical(), place);
        EXPECT_EQ(mappersOf(place), 2U);
        *memory = 2;
        EXPECT_NE(physical(), place);
        EXPECT_EQ(physical() % kPageBytes, 0x123U);
        EXPECT_EQ(mappersOf(place), 1U);
        EXPECT_EQ(mappersOf(physical()), 1U);
    });
    EXPECT_EQ(child, 0);
    EXPECT_EQ(physical(), place);
    ::munmap(pages, kPageBytes);
}

}  // namespace
