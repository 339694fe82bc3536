#include <array>
#include <kvsim/machine.h>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <kv/process.h>

#include "support/machine_test.h"

namespace {

constexpr const char* kVersionFile = "/usr/kelvaro/sysinfo/kelvaro_version.txt";

TEST(LibVersion, IsTheFirstLineOrTheReasonOnStandardOutputWhyThereIsNone) {
    kvsim::Machine machine;
    ENTER_MACHINE(machine);
    std::array<char, KV_LIB_VERSION_SIZE> version{};
    const std::string digits(120, '7');
    for (const auto& [text, expected] :
         {std::pair<std::string, std::string>{"9.4.1\nbuilt today\n", "9.4.1\n"},
          {digits, digits.substr(0, 99)}}) {
        kvsim::Machine::write(kVersionFile, text);
        EXPECT_EQ(kv_getLibVersion(version.data()), 0);
        EXPECT_EQ(version.data(), expected);
    }

    version.fill('x');
    testing::internal::CaptureStdout();
    kvsim::Machine::write(kVersionFile, "");
    EXPECT_EQ(kv_getLibVersion(version.data()), -1);
    kvsim::Machine::remove(kVersionFile);
    EXPECT_EQ(kv_getLibVersion(version.data()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ERROR: Empty Kelvaro library information file\n"
              "ERROR: Could not open Kelvaro library information file\n");
    EXPECT_EQ(version.front(), 'x') << "written on success only";
}

}  // namespace
