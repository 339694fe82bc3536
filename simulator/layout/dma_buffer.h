#pragma once

#include <cstdint>
#include <string>

#include "kvsim/description.h"
#include "layout/file_tree.h"

namespace kvsim {

inline constexpr const char* kDmaBufferClass = "/sys/class/u-dma-buf";
inline constexpr const char* kCachedBufferName = "cached-buffer-pcie";

/** A buffer of the u-dma-buf driver. */
struct DmaBuffer {
    std::string name;
    std::uint64_t address;
    /** As it was asked for; the memory is that of whole pages. */
    std::uint64_t sizeBytes;
    unsigned minor;
    bool isCoherent = false;
};

/** The cache-coherent buffer that is set up at boot, before any other. */
inline DmaBuffer cachedBufferOf(const MemoryRange& memory) {
    return {.name = kCachedBufferName,
            .address = memory.address,
            .sizeBytes = memory.sizeBytes,
            .minor = 0,
            .isCoherent = true};
}

/** "/dev/NAME", a plain file that is the buffer's memory. */
std::string devicePath(const DmaBuffer& buffer);

void layOutDmaBuffer(const DmaBuffer& buffer, FileTree& tree);

}  // namespace kvsim
