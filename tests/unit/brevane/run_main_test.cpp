#include <iostream>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Kernel.h>

using brevane::Model;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

Outcome runMain(std::string argument, const Model& model) {
    char program[] = "pump";
    char* argv[] = {program, argument.data(), nullptr};
    std::ostringstream output;
    std::ostringstream errors;
    auto* formerOutput = std::cout.rdbuf(output.rdbuf());
    auto* formerErrors = std::cerr.rdbuf(errors.rdbuf());
    const int status = brevane::runMain(2, argv, model);
    std::cout.rdbuf(formerOutput);
    std::cerr.rdbuf(formerErrors);
    return {status, output.str(), errors.str()};
}

TEST(RunMain, RunsForTheGivenTimeAndTellsHowItWent) {
    Model model;
    model.name = "pump";
    model.step = [] {};
    const Outcome good = runMain("--stop-time=0.01", model);
    EXPECT_EQ(good.status, 0);
    EXPECT_THAT(good.output, AllOf(StartsWith("model       pump\n"), HasSubstr("result      good\n")));

    model.errorStatus = [] { return "tank is empty"; };
    const Outcome failed = runMain("--stop-time=0.01", model);
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.output, HasSubstr("result      tank is empty\n"));
}

TEST(RunMain, RefusesAWrongCommandLineWithoutRunning) {
    Model model;
    model.initialize = [] { FAIL() << "the model ran"; };
    for (const char* wrong : {"--stop-time=0", "--stop-time=-1", "--stop-time=nan", "--stop-time=inf",
                              "--stop-time=1e300", "--stop-time=1s", "--stop-time=", "--fast", "extra"}) {
        const Outcome outcome = runMain(wrong, model);
        EXPECT_EQ(outcome.status, 2) << wrong;
        EXPECT_EQ(outcome.output, "") << wrong;
        EXPECT_NE(outcome.errors, "") << wrong;
    }
    EXPECT_THAT(runMain("--stop-time=1s", model).errors, StartsWith("--stop-time: \"1s\" is no number"));

    const Outcome help = runMain("--help", model);
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, HasSubstr("--stop-time SECONDS"));
}

}  // namespace
