#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/process.h>

#include "support/emulator.h"
#include "support/log_capture.h"
#include "support/machine_temporary_folder.h"

namespace fs = std::filesystem;
using kv::test::debug;
using kv::test::info;
using kv::test::warning;
using testing::ElementsAre;

namespace {

/** A program that writes its arguments, each in brackets, and the size of its environment. */
constexpr const char* kProgram = R"(#!/bin/sh
{ for argument; do printf '[%s]' "$argument"; done; /usr/bin/wc -c < /proc/$$/environ; } > "$0.seen"
)";

class Spawn : public testing::Test {
 protected:
    void install(const std::string& name) {
        program_ = folder_.write(name, kProgram);
        fs::permissions(program_, fs::perms::owner_all);
    }

    /** Spawns the installed program, waits for its end and hands back what it has seen. */
    std::string seen(const std::string& options) {
        const int child =
            kv_spawnExecutable(folder_.path().c_str(), program_.filename().c_str(), options.c_str());
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        childRecord_ = debug("Child pid: " + std::to_string(child));
        std::ifstream file(program_.string() + ".seen");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    kv::test::TemporaryFolder folder_;
    fs::path program_;
    kv::test::Record childRecord_{};
    kv::test::LogCapture log_;
};

TEST_F(Spawn, PassesUpToEighteenArgumentsAndAnEmptyEnvironment) {
    install("helper");
    setenv("KV_INHERITED", "no", 1);
    EXPECT_EQ(seen("   "), "0\n");
    EXPECT_EQ(seen("  -a   --b=c\td \"e f\" "), "[-a][--b=c\td][\"e][f\"]0\n");
    log_.take();

    std::string options;
    std::string passed;
    for (int i = 1; i <= 18; ++i) {
        options += std::to_string(i) + " ";
        passed += "[" + std::to_string(i) + "]";
    }
    EXPECT_EQ(seen(options), passed + "0\n");
    EXPECT_THAT(log_.take(), ElementsAre(childRecord_));
    for (const char* more : {"19", "19 20 21 22 23 24 25"}) {
        EXPECT_EQ(seen(options + more), passed + "0\n");
        EXPECT_THAT(log_.take(),
                    ElementsAre(warning("kv_spawnExecutable(): Too many arguments specified, remaining "
                                        "arguments will be ignored"),
                                childRecord_));
    }
}

TEST_F(Spawn, TakesAPathOfNinetyNineCharactersAndTellsWhyItStartsNothing) {
    const std::string folder = folder_.path();
    const std::string name(99 - folder.size() - 1, 'n');
    install(name);
    EXPECT_EQ(seen("x"), "[x]0\n");
    log_.take();
    for (const char* more : {"n", "nn"}) {
        EXPECT_EQ(kv_spawnExecutable(folder.c_str(), (name + more).c_str(), "x"), -1);
        EXPECT_THAT(log_.take(), ElementsAre(info("kv_spawnExecutable(): Executable path too long")));
    }
    SKIP_IN_EMULATOR("tells the parent nothing of a failed start");
    EXPECT_EQ(kv_spawnExecutable("/no/such", "program", ""), -1);
    EXPECT_THAT(log_.take(), ElementsAre(info("posix_spawn() failed: No such file or directory")));
}

}  // namespace
