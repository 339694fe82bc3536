#include "memory/kv_udmabuf_pool.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <limits>
#include <ranges>
#include <utility>

namespace kv::memory {

// Neither branches on the values, which nobody can predict.

uint32_t FreeBlockIndex::Group::largest() const {
    uint32_t largest = 0;
    for (const uint32_t value : values) {
        largest = std::max(largest, value);
    }
    return largest;
}

std::size_t FreeBlockIndex::Group::firstAtLeast(uint32_t value) const {
    unsigned enough = 0;
    for (std::size_t i = 0; i < kFan; ++i) {
        enough |= (values[i] >= value ? 1U : 0U) << i;
    }
    return static_cast<std::size_t>(std::countr_zero(enough));
}

void FreeBlockIndex::reserve(std::size_t units) {
    if (units <= capacity()) {
        return;
    }
    std::vector<Level> levels = {levels_.front()};
    levels.front().resize(std::max(2 * levels.front().size(), (units + kFan - 1) / kFan));
    while (levels.back().size() > 1) {
        const Level& below = levels.back();
        Level above((below.size() + kFan - 1) / kFan);
        for (std::size_t i = 0; i < below.size(); ++i) {
            above[i / kFan].values[i % kFan] = below[i].largest();
        }
        levels.push_back(std::move(above));
    }
    levels_ = std::move(levels);
}

void FreeBlockIndex::set(std::size_t position, std::size_t units) {
    auto value = static_cast<uint32_t>(std::min<std::size_t>(units, std::numeric_limits<uint32_t>::max()));
    for (Level& level : levels_) {
        Group& group = level[position / kFan];
        uint32_t& present = group.values[position % kFan];
        if (present == value) {
            return;
        }
        present = value;
        value = group.largest();
        position /= kFan;
    }
}

std::optional<std::size_t> FreeBlockIndex::findFirst(std::size_t units) const {
    if (levels_.back().front().largest() < units) {
        return std::nullopt;
    }
    std::size_t position = 0;
    for (const Level& level : std::views::reverse(levels_)) {
        position = position * kFan + level[position].firstAtLeast(static_cast<uint32_t>(units));
    }
    return position;
}

CachedMemory::CachedMemory(uintptr_t virtAddr, uintptr_t physAddr, std::size_t size)
    : blockList_({{virtAddr, physAddr, size, true}}, &nodes_), virtAddr_(virtAddr), size_(size) {
    makeRoom(0);
    starts_[0] = blockList_.begin();
    noteFree(blockList_.front());
}

const CachedMemBlock* CachedMemory::allocate(std::size_t size) {
    const auto position = freeBlocks_.findFirst(size / kBlockUnit);
    if (!position) {
        return nullptr;
    }
    const Block block = starts_[*position];
    if (block->size - size >= kBlockUnit) {
        cut(block, size);
    }
    block->free = false;
    noteNotFree(*block);
    return &*block;
}

bool CachedMemory::release(uintptr_t address) {
    Block block = blockAt(address);
    if (block == blockList_.end()) {
        return false;
    }
    block->free = true;
    if (block != blockList_.begin() && std::prev(block)->free) {
        --block;
    }
    while (std::next(block) != blockList_.end() && std::next(block)->free) {
        absorbNext(block);
    }
    noteFree(*block);
    return true;
}

void CachedMemory::makeRoom(std::size_t position) {
    freeBlocks_.reserve(position + 1);
    starts_.resize(freeBlocks_.capacity(), blockList_.end());
}

CachedMemory::Block CachedMemory::blockAt(uintptr_t address) {
    const std::size_t offset = address - virtAddr_;
    const std::size_t position = offset / kBlockUnit;
    return offset % kBlockUnit == 0 && position < starts_.size() ? starts_[position] : blockList_.end();
}

/** Leaves a block of a size, with a free one of the rest behind it. */
void CachedMemory::cut(Block block, std::size_t size) {
    const std::size_t restPosition = positionOf(*block) + size / kBlockUnit;
    makeRoom(restPosition);
    if (spareBlocks_.empty()) {
        spareBlocks_.emplace_back();
    }
    const Block rest = spareBlocks_.begin();
    blockList_.splice(std::next(block), spareBlocks_, rest);
    *rest = {block->virtAddr + size, block->physAddr + size, block->size - size, true};
    block->size = size;
    starts_[restPosition] = rest;
    noteFree(*rest);
}

void CachedMemory::absorbNext(Block block) {
    const Block next = std::next(block);
    noteNotFree(*next);
    starts_[positionOf(*next)] = blockList_.end();
    block->size += next->size;
    spareBlocks_.splice(spareBlocks_.begin(), blockList_, next);
}

void CachedMemory::noteFree(const CachedMemBlock& block) {
    freeBlocks_.set(positionOf(block), block.size / kBlockUnit);
}

void CachedMemory::noteNotFree(const CachedMemBlock& block) {
    freeBlocks_.set(positionOf(block), 0);
}

}  // namespace kv::memory
