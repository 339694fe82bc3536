#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_temporary_folder.h"
#include "support/shell.h"

using kv::test::Outcome;
using kv::test::shell;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

/** The example model in an application folder of its own, on a machine that stays powered between its starts.
 */
class ControlLoop : public testing::Test {
 protected:
    void SetUp() override {
        fs::copy(CONTROL_LOOP_FOLDER, application(), fs::copy_options::recursive);
        if (run("true").status == 126) {
            GTEST_SKIP() << run("true").output;
        }
    }

    [[nodiscard]] fs::path application() const { return folder_.path() / "control_loop"; }
    [[nodiscard]] std::string program() const { return (application() / "bin/control_loop").string(); }

    /** Runs a command on the machine; its standard error goes with its output. */
    [[nodiscard]] Outcome run(const std::string& command) const {
        return shell("timeout 60 " KVSIM_PROGRAM " run --state " + (folder_.path() / "state").string() +
                     " ember -- " + command);
    }

    [[nodiscard]] Outcome start(const std::string& options = "--stop-time 0.3") const {
        return run(program() + " --max-skipped 100 " + options);
    }

    kv::test::TemporaryFolder folder_;
};

/** The last row of a record: time, set point, response, output. */
std::array<double, 4> lastRow(const fs::path& file) {
    std::ifstream stream(file);
    std::string last;
    for (std::string line; std::getline(stream, line);) {
        last = line;
    }
    std::array<double, 4> row{};
    std::sscanf(last.c_str(), "%lf,%lf,%lf,%lf", &row[0], &row[1], &row[2], &row[3]);
    return row;
}

TEST_F(ControlLoop, HoldsThePlantAtItsSetPointAndLeavesNothingBehind) {
    const fs::path record = folder_.path() / "signals.csv";
    const fs::path report = folder_.path() / "report.json";
    const Outcome first =
        start("--stop-time 1.2 --record " + record.string() + " --report " + report.string());
    EXPECT_EQ(first.status, 0);
    EXPECT_THAT(
        first.output,
        AllOf(HasSubstr("Ember real-time target machine, serial number 40127, processor at 45 degrees"),
              HasSubstr("board 1     1b5a:0a18 at bus 9, slot 0"), HasSubstr("identity 0x0a180001"),
              HasSubstr("board 2     1b5a:0a28 at bus 15, slot 0"), HasSubstr("/dev/uio"),
              HasSubstr("monitor     "), HasSubstr("settling    1 of 1 change between 2.00 V and 5.00 V"),
              HasSubstr("registry    empty again"), HasSubstr("result      good")));
    const auto [time, setPoint, response, output] = lastRow(record);
    EXPECT_GT(time, 0.8);
    EXPECT_NEAR(response, setPoint, 0.15);
    EXPECT_NEAR(output * 0.8, response, 0.5) << "the plant has a gain of 0.8";
    std::ifstream json(report);
    EXPECT_THAT(
        std::string(std::istreambuf_iterator<char>(json), {}),
        AllOf(HasSubstr("\"verdict\": \"good\""), HasSubstr("\"name\": \"Ember real-time target machine\""),
              HasSubstr("\"serial_number\": 40127"), HasSubstr("\"libkv\": \"2.4.1\""),
              HasSubstr("\"device\": \"the timer of board 1 (/dev/uio2)\""), HasSubstr("\"settled\": 1,"),
              HasSubstr("\"empty\": true")));
}

TEST_F(ControlLoop, ShowsClockTimesAndOverranWhereItWasHeldUp) {
    const fs::path record = folder_.path() / "signals.csv";
    const std::string log = (folder_.path() / "log").string();
    const Outcome heldUp =
        run("sh -c '" + program() + " --stop-time 1.2 --record " + record.string() + " 2>" + log +
            " & until grep -q \"control_loop runs\" " + log +
            "; do sleep 0.02; done; sleep 0.2; kill -STOP $!; sleep 0.3; kill -CONT $!; wait $!'");
    EXPECT_EQ(heldUp.status, 3);
    EXPECT_THAT(heldUp.output,
                ContainsRegex("\nresult      overran: [0-9]+ of [0-9]+ steps, [2-9][0-9.]+ % of the"));
    std::smatch steps;
    ASSERT_TRUE(std::regex_search(heldUp.output, steps, std::regex("\nsteps       ([0-9]+) in 1\\.[2-9]")))
        << heldUp.output;
    EXPECT_LT(std::stoi(steps[1]), 950);
    EXPECT_GT(lastRow(record)[0], 1.0) << "seconds, however few steps there were";
}

TEST_F(ControlLoop, NamesTheBoardWhoseInterruptNeverComes) {
    const std::string machine = (folder_.path() / "quiet.yaml").string();
    const Outcome silent = shell(
        "sed '/board: analog-io/d; /plants:/d; /{output:/d' " EMBER_DESCRIPTION " >" + machine +
        "; timeout 60 " KVSIM_PROGRAM " run " + machine + " -- " + program() + " --trigger-timeout 0.3");
    EXPECT_EQ(silent.status, 1);
    EXPECT_THAT(
        silent.output,
        ContainsRegex("\nresult      failed: no trigger from the timer of board 1 \\(/dev/uio[0-9]+\\) in "));
}

TEST_F(ControlLoop, GoesOnFromTheRunBeforeUnlessItWasChanged) {
    const Outcome first = start();
    EXPECT_THAT(first.output, AllOf(HasSubstr("start       model load"), HasSubstr("starts from zero")));
    std::smatch left;
    ASSERT_TRUE(std::regex_search(first.output, left, std::regex("integrator at ([0-9.-]+ V);")))
        << first.output;
    EXPECT_THAT(start().output,
                AllOf(HasSubstr("start       model run"),
                      HasSubstr("goes on in run 2, its integrator at " + left[1].str() + " as the run")));
    std::ofstream(application() / "misc/UUID") << "another build\n";
    EXPECT_THAT(start().output, AllOf(HasSubstr("start       model load"), HasSubstr("starts from zero")));
}

TEST_F(ControlLoop, EndsWithTheBlocksErrorWhereABoardIsMissing) {
    const Outcome failed =
        run("sh -c 'rm /sys/bus/pci/devices/0000:0f:00.0; " + program() + " --stop-time 0.2'");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.output,
                AllOf(HasSubstr("In Analog Setup, control_loop/Setup 2 block, ID 2: Module not found"),
                      HasSubstr("registry    empty again"), Not(HasSubstr("result      good"))));
}

TEST_F(ControlLoop, EndsWithTheBlocksErrorWhereTheBoardIsTakenAwayAsItRuns) {
    const Outcome failed =
        run("sh -c '(sleep 0.5; echo 0000:09:00.0 > /sys/bus/pci/drivers/uio_kelvaro/unbind) & " + program() +
            " --stop-time 5'");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.output, AllOf(HasSubstr("In Analog Timer, control_loop/Trigger block, ID 1: "),
                                     ContainsRegex("result      .*Input/output error"),
                                     HasSubstr("registry    empty again")));
}

}  // namespace
