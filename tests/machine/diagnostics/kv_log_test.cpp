#include <filesystem>
#include <functional>
#include <kvsim/machine.h>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

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
    EXPECT_ANY_THROW(kvsim::Machine::read(kLogFile));
}

TEST(KvLog, WritesToNoFileThatAnotherUserMayHavePutThere) {
    ::alarm(20);
    kvsim::Machine machine;
    ENTER_MACHINE(machine);
    const std::string folder = "/home/brvn/logs";
    const std::string victim = "/home/brvn/logs/victim/kvlog.log";
    const std::function<bool()> setUps[] = {
        [&] { return ::symlink(victim.c_str(), kLogFile) == 0; },
        [&] { return ::link(victim.c_str(), kLogFile) == 0; },
        [&] { return ::mkfifo(kLogFile, 0666) == 0; },
        [&] { return ::rename(victim.c_str(), kLogFile) == 0 && ::chown(kLogFile, 1000, 1000) == 0; },
        [&] {
            return ::rename(folder.c_str(), "/home/brvn/moved") == 0 &&
                   ::symlink("moved", folder.c_str()) == 0;
        },
    };
    for (const auto& setUp : setUps) {
        std::filesystem::remove(kLogFile);
        kvsim::Machine::write(victim, "untouched");
        if (setUp()) {  // only root gives files away, and the folder may be a mount
            kv_log(kv_error, "to nobody");
            const bool isFile = is_regular_file(std::filesystem::symlink_status(kLogFile));
            EXPECT_EQ(kvsim::Machine::read(isFile ? kLogFile : victim), "untouched") << &setUp - setUps;
        }
    }
}

TEST(KvLog, WritesToItsFileInTheFolderOfAnotherUser) {
    kvsim::Machine machine;
    ENTER_MACHINE(machine);
    if (::chown("/home/brvn/logs", 1000, 1000) != 0) {
        GTEST_SKIP() << "only root gives folders away";
    }
    kv_log(kv_error, "kept");
    EXPECT_THAT(kvsim::Machine::read(kLogFile), testing::HasSubstr("kept"));
}

}  // namespace
