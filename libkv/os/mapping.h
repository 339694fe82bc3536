#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <utility>

#include "os/kept_errno.h"

namespace kv::os {

/** Where something is mapped is often told and kept as a number. */
inline void* pointerTo(std::uintptr_t address) noexcept {
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

/** Owns a memory mapping. Unmapping keeps errno, so a failure can still be told after clean-up. */
class Mapping {
 public:
    Mapping() noexcept = default;
    /** Takes what mmap() returned; its failure value makes an empty object. */
    Mapping(void* address, std::size_t lengthBytes) noexcept
        : address_(address == MAP_FAILED ? nullptr : address), lengthBytes_(lengthBytes) {}
    Mapping(Mapping&& other) noexcept : lengthBytes_(other.lengthBytes_) { address_ = other.release(); }
    Mapping& operator=(Mapping&& other) noexcept {
        reset();
        lengthBytes_ = other.lengthBytes_;
        address_ = other.release();
        return *this;
    }
    ~Mapping() { reset(); }

    [[nodiscard]] void* get() const noexcept { return address_; }
    [[nodiscard]] std::size_t lengthBytes() const noexcept { return lengthBytes_; }
    [[nodiscard]] void* release() noexcept { return std::exchange(address_, nullptr); }
    explicit operator bool() const noexcept { return address_ != nullptr; }

    void reset() noexcept {
        void* const old = release();
        if (old == nullptr) {
            return;
        }
        const KeptErrno kept;
        ::munmap(old, lengthBytes_);
    }

 private:
    void* address_ = nullptr;
    std::size_t lengthBytes_ = 0;
};

}  // namespace kv::os
