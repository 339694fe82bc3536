#pragma once

#include <cstdint>

namespace kvsim {

inline constexpr std::uint64_t kPageBytes = 4096;

constexpr std::uint64_t roundUpToPages(std::uint64_t bytes) {
    return (bytes + kPageBytes - 1) & ~(kPageBytes - 1);
}

}  // namespace kvsim
