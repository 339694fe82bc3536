#include "memory/kv_udmabuf_pool.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

using kv::memory::CachedMemBlock;
using kv::memory::CachedMemory;
using kv::memory::FreeBlockIndex;
using kv::memory::roundUpToUnits;

namespace {

constexpr uintptr_t kVirtual = 0x7F0000000000;
constexpr uintptr_t kPhysical = 0x40000000;
constexpr std::size_t kPage = 4096;

/** The pool as it is defined: one list, and each operation walks it. */
class ListWalk {
 public:
    explicit ListWalk(std::size_t size) : blocks_{{kVirtual, kPhysical, size, true}} {}

    std::optional<uintptr_t> allocate(std::size_t size) {
        for (std::size_t i = 0; i < blocks_.size(); ++i) {
            if (!blocks_[i].free || blocks_[i].size < size) {
                continue;
            }
            const std::size_t rest = blocks_[i].size - size;
            if (rest >= kPage) {
                blocks_[i].size = size;
                const CachedMemBlock behind{blocks_[i].virtAddr + size, blocks_[i].physAddr + size, rest,
                                            true};
                blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(i) + 1, behind);
            }
            blocks_[i].free = false;
            return blocks_[i].virtAddr;
        }
        return std::nullopt;
    }

    bool release(uintptr_t address) {
        for (std::size_t i = 0; i < blocks_.size(); ++i) {
            if (blocks_[i].virtAddr != address) {
                continue;
            }
            blocks_[i].free = true;
            i -= i > 0 && blocks_[i - 1].free ? 1 : 0;
            while (i + 1 < blocks_.size() && blocks_[i + 1].free) {
                blocks_[i].size += blocks_[i + 1].size;
                blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(i) + 1);
            }
            return true;
        }
        return false;
    }

    [[nodiscard]] const std::vector<CachedMemBlock>& blocks() const { return blocks_; }

 private:
    std::vector<CachedMemBlock> blocks_;
};

void expectSameBlocks(const CachedMemory& pool, const ListWalk& model) {
    ASSERT_EQ(pool.blocks().size(), model.blocks().size());
    uintptr_t expectedBegin = kVirtual;
    auto block = pool.blocks().begin();
    for (const CachedMemBlock& expected : model.blocks()) {
        ASSERT_EQ(block->virtAddr, expectedBegin);
        ASSERT_EQ(block->physAddr - kPhysical, block->virtAddr - kVirtual);
        ASSERT_EQ(block->size, expected.size);
        ASSERT_EQ(block->free, expected.free);
        expectedBegin += block->size;
        ++block;
    }
    ASSERT_EQ(expectedBegin, kVirtual + pool.size());
}

struct Churn {
    std::size_t bufferBytes;
    std::size_t largestRequest;
    unsigned operations;
};

class CachedMemoryChurn : public testing::TestWithParam<Churn> {};

TEST_P(CachedMemoryChurn, PlacesEveryBlockWhereAWalkOfTheListPlacesIt) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        CachedMemory pool(kVirtual, kPhysical, GetParam().bufferBytes);
        ListWalk model(GetParam().bufferBytes);
        std::vector<uintptr_t> live;
        unsigned failures = 0;
        for (unsigned i = 0; i < GetParam().operations; ++i) {
            // Fills and drains in turns, so that the pool is exhausted and empty now and then.
            const bool isFilling = i / 500 % 2 == 0;
            if (random() % 8 < (isFilling ? 6U : 2U) || live.empty()) {
                const std::size_t size = roundUpToUnits(random() % GetParam().largestRequest + 1);
                const CachedMemBlock* block = pool.allocate(size);
                const auto expected = model.allocate(size);
                ASSERT_EQ(block != nullptr, expected.has_value());
                failures += block == nullptr ? 1 : 0;
                if (block != nullptr) {
                    ASSERT_EQ(block->virtAddr, *expected);
                    live.push_back(block->virtAddr);
                }
            } else if (random() % 16 == 0) {
                const uintptr_t anywhere = kVirtual + random() % (GetParam().bufferBytes / 512 + 1) * 512;
                ASSERT_EQ(pool.release(anywhere), model.release(anywhere));
                std::erase(live, anywhere);
            } else {
                std::swap(live[random() % live.size()], live.back());
                ASSERT_TRUE(pool.release(live.back()));
                ASSERT_TRUE(model.release(live.back()));
                live.pop_back();
            }
            ASSERT_NO_FATAL_FAILURE(expectSameBlocks(pool, model)) << "after operation " << i;
        }
        EXPECT_GT(failures, 0U) << "the buffer was never full";
        for (const uintptr_t address : live) {
            ASSERT_TRUE(pool.release(address));
        }
        EXPECT_TRUE(pool.isUnused());
        EXPECT_EQ(pool.blocks().front().size, GetParam().bufferBytes);
    }
}

INSTANTIATE_TEST_SUITE_P(Buffers, CachedMemoryChurn,
                         testing::Values(Churn{1 << 20, 8 * kPage, 5000},
                                         Churn{(1 << 20) + 1234, 8 * kPage, 5000},
                                         Churn{3 << 20, 300 * kPage, 5000}, Churn{kPage, kPage, 200},
                                         Churn{2 * kPage - 1, kPage, 200}, Churn{777, kPage, 200}));

TEST(CachedMemory, GivesABlockAwayWholeWhereLessThanAPageWouldBeLeft) {
    CachedMemory pool(kVirtual, kPhysical, 3 * kPage + 4095);
    EXPECT_EQ(pool.allocate(kPage)->size, kPage);
    EXPECT_EQ(pool.allocate(2 * kPage)->size, 2 * kPage + 4095);
    EXPECT_EQ(pool.allocate(kPage), nullptr);
    EXPECT_TRUE(pool.contains(kVirtual + pool.size())) << "the end counts";
    EXPECT_FALSE(pool.contains(kVirtual + pool.size() + 1));
    EXPECT_FALSE(pool.contains(kVirtual - 1));
}

TEST(CachedMemory, HandlesSizesThatNoMachineHas) {
    EXPECT_EQ(roundUpToUnits(0), 0U);
    EXPECT_EQ(roundUpToUnits(1), kPage);
    EXPECT_EQ(roundUpToUnits(std::numeric_limits<std::size_t>::max() - 4095), ~std::size_t{4095});
    EXPECT_EQ(roundUpToUnits(std::numeric_limits<std::size_t>::max() - 4094), 0U);

    CachedMemory pool(kVirtual, kPhysical, std::numeric_limits<std::size_t>::max());
    EXPECT_EQ(pool.allocate(kPage)->virtAddr, kVirtual);
    EXPECT_EQ(pool.allocate(kPage)->virtAddr, kVirtual + kPage);
}

TEST(FreeBlockIndex, FindsTheFirstOfALargeBuffer) {
    std::mt19937 random(3);
    FreeBlockIndex index;
    std::vector<std::size_t> units;
    for (int i = 0; i < 3000; ++i) {
        if (i % 500 == 0) {
            index.reserve(units.size() + random() % 200 + 1);  // at least doubles it
            units.resize(index.capacity());
        }
        const std::size_t position = random() % units.size();
        units[position] = random() % 4 == 0 ? random() % 5000 : 0;
        index.set(position, units[position]);
        const std::size_t wanted = random() % 5000 + 1;
        const auto first = std::ranges::find_if(units, [&](std::size_t each) { return each >= wanted; });
        const auto found = index.findFirst(wanted);
        ASSERT_EQ(found.value_or(units.size()), static_cast<std::size_t>(first - units.begin()));
    }
}

}  // namespace
