#pragma once

#include "active/physical_memory.h"

/** The DMA buffers of a real kernel's u-dma-buf devices, as a board reaches them. */
class KernelMemory : public kvsim::PhysicalMemory {
 public:
    [[nodiscard]] Span at(std::uint64_t address, std::uint64_t sizeBytes) override;

 private:
    struct Buffer {
        std::uint64_t address = 0;
        std::uint64_t sizeBytes = 0;
        std::shared_ptr<kv::os::Mapping> mapping = {};

        [[nodiscard]] bool holds(std::uint64_t first, std::uint64_t bytes) const {
            return first >= address && first - address <= sizeBytes && bytes <= sizeBytes - (first - address);
        }
    };

    static Buffer find(std::uint64_t address, std::uint64_t sizeBytes);

    /** The one that was asked for last. While it is mapped, its memory stays its own. */
    Buffer buffer_;
};
