#pragma once

#include <cerrno>
#include <cstddef>
#include <sys/mman.h>
#include <utility>

namespace kv::os {

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
    [[nodiscard]] void* release() noexcept { return std::exchange(address_, nullptr); }
    explicit operator bool() const noexcept { return address_ != nullptr; }

    void reset() noexcept {
        void* const old = release();
        if (old == nullptr) {
            return;
        }
        const int savedErrno = errno;
        ::munmap(old, lengthBytes_);
        errno = savedErrno;
    }

 private:
    void* address_ = nullptr;
    std::size_t lengthBytes_ = 0;
};

}  // namespace kv::os
