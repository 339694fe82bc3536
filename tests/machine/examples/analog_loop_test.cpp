#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_temporary_folder.h"
#include "support/shell.h"

using kv::test::Outcome;
using kv::test::shell;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

/** The example model in an application folder of its own, on a machine that stays powered between its starts.
 */
class AnalogLoop : public testing::Test {
 protected:
    void SetUp() override {
        fs::copy(ANALOG_LOOP_FOLDER, application(), fs::copy_options::recursive);
        if (run("true").status == 126) {
            GTEST_SKIP() << run("true").output;
        }
    }

    [[nodiscard]] fs::path application() const { return folder_.path() / "analog_loop"; }

    /** Runs a command on the machine; its standard error goes with its output. */
    [[nodiscard]] Outcome run(const std::string& command) const {
        return shell(std::string(KVSIM_PROGRAM) + " run --state " + (folder_.path() / "state").string() +
                     " ember -- " + command);
    }

    [[nodiscard]] Outcome start(const std::string& environment = "") const {
        return run("env " + environment + " " + (application() / "bin/analog_loop").string() +
                   " --stop-time 0.2");
    }

 private:
    kv::test::TemporaryFolder folder_;
};

TEST_F(AnalogLoop, FindsItsBoardsRunsAndLeavesNothingBehind) {
    const Outcome first = start();
    EXPECT_EQ(first.status, 0);
    EXPECT_THAT(
        first.output,
        AllOf(HasSubstr("Ember real-time target machine, serial number 40127, processor at 45 degrees"),
              HasSubstr("board 1     1b5a:0a18 at bus 9, slot 0"), HasSubstr("identity 0x0a180001"),
              HasSubstr("board 2     1b5a:0a28 at bus 15, slot 0"), HasSubstr("monitor     "),
              HasSubstr("input       5.00 V"), HasSubstr("registry    empty again"),
              HasSubstr("result      good")));
}

TEST_F(AnalogLoop, KnowsItsRestartFromAFirstStart) {
    EXPECT_THAT(start().output, HasSubstr("start       model load"));
    EXPECT_THAT(start().output, HasSubstr("start       model run"));
    std::ofstream(application() / "misc/UUID") << "another build\n";
    EXPECT_THAT(start().output, HasSubstr("start       model load"));
}

TEST_F(AnalogLoop, EndsWithTheBlocksErrorWhereABoardIsMissing) {
    const Outcome failed = run("sh -c 'rm /sys/bus/pci/devices/0000:0f:00.0; " +
                               (application() / "bin/analog_loop").string() + " --stop-time 0.2'");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.output,
                AllOf(HasSubstr("In Analog Setup, analog_loop/Setup 2 block, ID 2: Module not found"),
                      HasSubstr("registry    empty again"), Not(HasSubstr("result      good"))));
}

}  // namespace
