#pragma once

#include <filesystem>
#include <iterator>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/memory.h>

#include "support/log_capture.h"
#include "support/machine_test.h"

namespace kv::test {

constexpr const char* kManager = "/dev/u-dma-buf-mgr";
constexpr const char* kCachedNode = "/dev/cached-buffer-pcie";
constexpr const char* kCachedFolder = "/sys/class/u-dma-buf/cached-buffer-pcie/";
constexpr std::size_t kCachedBytes = 4UL * 4096;
constexpr uintptr_t kCachedAddress = 0x40000000;

/** A machine with a cached buffer of four pages. */
inline kvsim::Machine machineWithCachedBuffer() {
    return kvsim::Machine().cachedBuffer(kCachedAddress, kCachedBytes);
}

inline auto openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

}  // namespace kv::test
