#include <kvsim/machine.h>
#include <regex>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>

#include "support/machine_test.h"

namespace {

constexpr const char* kLogFile = "/home/brvn/logs/kvlog.log";

TEST(KvLog, AppendsOneStampedLineForEachCall) {
    kvsim::Machine machine;
    ENTER_MACHINE(machine);
    kvsim::Machine::write(kLogFile, "earlier\n");
    kv_log(kv_info, "first %s, as it stands");
    kv_log(kv_warning, "");
    const std::regex lines(
        "earlier\n"
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.000042 \[42\] \[info   \] first %s, as it stands)"
        "\n"
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.000042 \[42\] \[warning\] )"
        "\n");
    const std::string text = kvsim::Machine::read(kLogFile);
    EXPECT_TRUE(std::regex_match(text, lines)) << text;
}

TEST(KvLog, LosesTheLineQuietlyWhereTheFileCannotBeOpened) {
    kvsim::Machine machine;
    ENTER_MACHINE(machine);
    kvsim::Machine::replaceByFolder(kLogFile);
    kv_log(kv_error, "lost");
    kvsim::Machine::remove("/home/brvn/logs");
    kv_log(kv_error, "lost");
    EXPECT_ANY_THROW(kvsim::Machine::read(kLogFile));
}

}  // namespace
