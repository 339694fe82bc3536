#pragma once

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/soc.h>

#include "support/log_capture.h"
#include "support/machine_test.h"

namespace kv::test {

/** A machine, and the log of what the library says on it. */
class SocMachine : public testing::Test {
 protected:
    static auto openFiles() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    }

    /** Puts a node in the place of a file that is there and cannot be opened, not even by root. */
    static void makeUnopenable(const std::string& path) {
        std::filesystem::remove(path);
        ASSERT_EQ(::mknod(path.c_str(), S_IFSOCK | 0644, 0), 0);
    }

    /** Puts a device in the place of a file that reads as zeros and refuses every write with ENOSPC. */
    static void makeFull(const std::string& path) {
        std::filesystem::remove(path);
        std::filesystem::create_symlink("/dev/full", path);
    }

    kvsim::Machine machine_;
    LogCapture log_;
};

}  // namespace kv::test
