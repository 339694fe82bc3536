#include "active/physical_memory.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using kv::os::UniqueFd;
using kvsim::PhysicalMemory;

constexpr std::uint64_t kPage = 4096;

UniqueFd file(std::uint64_t sizeBytes) {
    UniqueFd memory(::memfd_create("buffer", MFD_CLOEXEC));
    EXPECT_EQ(::ftruncate(memory.get(), static_cast<off_t>(sizeBytes)), 0);
    return memory;
}

TEST(PhysicalMemory, SharesABufferWithTheFileThatIsMapped) {
    PhysicalMemory memory;
    UniqueFd own = file(2 * kPage);
    const UniqueFd programs(::dup(own.get()));
    memory.add(0x70000000, 2 * kPage, std::move(own));

    const auto span = memory.at(0x70001000, 8);
    ASSERT_TRUE(span);
    *span.data() = std::byte{'x'};
    char read = 0;
    ASSERT_EQ(::pread(programs.get(), &read, 1, kPage), 1);
    EXPECT_EQ(read, 'x');

    memory.remove(0x70000000);
    EXPECT_FALSE(memory.at(0x70001000, 8));
    EXPECT_EQ(*span.data(), std::byte{'x'}) << "what a board has stays";
}

TEST(PhysicalMemory, IsNothingBesideItsBuffers) {
    PhysicalMemory memory;
    UniqueFd own = file(2 * kPage);
    const UniqueFd programs(::dup(own.get()));
    memory.add(0x70000000, 2 * kPage, std::move(own));
    memory.add(0x70002000, kPage, file(kPage));
    EXPECT_TRUE(memory.at(0x70000000, 2 * kPage));
    EXPECT_TRUE(memory.at(0x70001FFC, 4));
    EXPECT_FALSE(memory.at(0x6FFFFFFF, 1));
    EXPECT_FALSE(memory.at(0x70001FFC, 8)) << "across two buffers";
    EXPECT_FALSE(memory.at(0x70003000, 1));
    EXPECT_FALSE(memory.at(0x70000004, UINT64_MAX - 3)) << "the end wraps around";

    ASSERT_EQ(::ftruncate(programs.get(), kPage), 0);
    EXPECT_TRUE(memory.at(0x70000FFC, 4));
    EXPECT_FALSE(memory.at(0x70001000, 4)) << "a program has cut the file";
}

TEST(PhysicalMemory, FindsTheFirstGapOfARange) {
    PhysicalMemory memory;
    const kvsim::MemoryRange range{.address = 0x1000, .sizeBytes = 0x5000};
    memory.add(0x0, 0x1000, UniqueFd());
    memory.add(0x2000, 0x1000, UniqueFd());
    memory.add(0x8000, 0x1000, UniqueFd());
    EXPECT_EQ(memory.firstGap(range, 0x1000), 0x1000U);
    EXPECT_EQ(memory.firstGap(range, 0x2000), 0x3000U);
    EXPECT_EQ(memory.firstGap(range, 0x3000), 0x3000U);
    EXPECT_EQ(memory.firstGap(range, 0x4000), std::nullopt) << "there is room, but behind the range";
}

}  // namespace
