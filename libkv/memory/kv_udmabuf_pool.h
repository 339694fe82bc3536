#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory_resource>
#include <optional>
#include <vector>

namespace kv::memory {

/** Blocks begin at a multiple of this from the start of the buffer. */
constexpr std::size_t kBlockUnit = 4096;

/** Rounds up to whole units. @return 0 for 0 and where the result would wrap */
constexpr std::size_t roundUpToUnits(std::size_t size) {
    return (size + kBlockUnit - 1) & ~(kBlockUnit - 1);
}

/** One block of the cached buffer. */
struct CachedMemBlock {
    uintptr_t virtAddr;
    uintptr_t physAddr;
    std::size_t size;
    bool free;
};

/**
 * How large a free block begins at each unit of the buffer, with the largest of every 16 above, and again of
 * every 16 of these: the first one that is large enough is found without a walk. It covers no more of the
 * buffer than blocks begin in.
 */
class FreeBlockIndex {
 public:
    /** In units. */
    [[nodiscard]] std::size_t capacity() const { return levels_.front().size() * kFan; }
    /** Makes room for at least this many units; no free block begins in what is new. */
    void reserve(std::size_t units);

    /** Notes the units of the free block that begins here; 0 where none does. */
    void set(std::size_t position, std::size_t units);
    /** The first position where a free block of at least this many units begins. */
    [[nodiscard]] std::optional<std::size_t> findFirst(std::size_t units) const;

 private:
    static constexpr std::size_t kFan = 16;
    static constexpr std::size_t kGroupBytes = kFan * sizeof(uint32_t);  // one line of the processor's cache

    struct alignas(kGroupBytes) Group {
        std::array<uint32_t, kFan> values;

        [[nodiscard]] uint32_t largest() const;
        [[nodiscard]] std::size_t firstAtLeast(uint32_t value) const;
    };
    using Level = std::vector<Group>;

    /** The units of the buffer first; each further level has one value for a group below, the last one group.
     */
    std::vector<Level> levels_ = {Level(1)};
};

/** Hands out the cached buffer in blocks. Only does the sums: it never touches the memory. Not locked. */
class CachedMemory {
 public:
    CachedMemory(uintptr_t virtAddr, uintptr_t physAddr, std::size_t size);
    CachedMemory(const CachedMemory&) = delete;
    CachedMemory& operator=(const CachedMemory&) = delete;

    [[nodiscard]] uintptr_t virtAddr() const { return virtAddr_; }
    [[nodiscard]] std::size_t size() const { return size_; }
    /** In address order; together they are the buffer. */
    [[nodiscard]] const std::pmr::list<CachedMemBlock>& blocks() const { return blockList_; }
    [[nodiscard]] bool isUnused() const { return blockList_.size() == 1 && blockList_.front().free; }

    /** Whether an address is in the buffer, or its end. */
    [[nodiscard]] bool contains(uintptr_t address) const { return address - virtAddr_ <= size_; }

    /**
     * Takes the first free block that is large enough, and cuts off what is too much of it.
     *
     * @param size  whole units, not 0
     * @return the block, valid until it is freed; null when there is none
     */
    const CachedMemBlock* allocate(std::size_t size);

    /** Frees the block that begins at an address and joins it with free neighbours. @return whether one does
     */
    bool release(uintptr_t address);

 private:
    using BlockList = std::pmr::list<CachedMemBlock>;
    using Block = BlockList::iterator;

    [[nodiscard]] std::size_t positionOf(const CachedMemBlock& block) const {
        return (block.virtAddr - virtAddr_) / kBlockUnit;
    }
    void makeRoom(std::size_t position);
    [[nodiscard]] Block blockAt(uintptr_t address);
    void cut(Block block, std::size_t size);
    void absorbNext(Block block);
    void noteFree(const CachedMemBlock& block);
    void noteNotFree(const CachedMemBlock& block);

    std::pmr::monotonic_buffer_resource nodes_; /**< of both lists, side by side */
    BlockList blockList_;
    uintptr_t virtAddr_;
    std::size_t size_;

    BlockList spareBlocks_{&nodes_}; /**< absorbed ones, kept for the next cut */
    std::vector<Block> starts_; /**< the block that begins at each unit; the list's end where none does */
    FreeBlockIndex freeBlocks_;
};

}  // namespace kv::memory
