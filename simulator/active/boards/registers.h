#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kvsim {

/**
 * Registers in memory that programs share. Who reads a value that was written here also sees what was written
 * before it, and likewise in the other direction.
 */
class SharedRegisters {
 public:
    /** @param first  aligned to 8 bytes */
    explicit SharedRegisters(std::byte* first) : first_(first) {}

    template <typename Value = std::uint32_t>
    [[nodiscard]] Value read(std::uint32_t offset) const {
        return at<Value>(offset).load(std::memory_order_acquire);
    }
    template <typename Value>
    void write(std::uint32_t offset, Value value) {
        at<Value>(offset).store(value, std::memory_order_release);
    }
    void clearBits(std::uint32_t offset, std::uint32_t bits) {
        at<std::uint32_t>(offset).fetch_and(~bits, std::memory_order_acq_rel);
    }

 private:
    template <typename Value>
    [[nodiscard]] std::atomic_ref<Value> at(std::uint32_t offset) const {
        return std::atomic_ref<Value>(*reinterpret_cast<Value*>(first_ + offset));
    }

    std::byte* first_;
};

}  // namespace kvsim
