#include "command_line/command_line.h"

#include <iostream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

/** A program with one sub-command of each kind, and what it makes of a command line. */
struct Sample {
    bool loud = false;
    std::string folder;
    std::string machine;
    std::vector<std::string> command;
    int status = -1;
    std::string output;
    std::string errors;

    explicit Sample(std::vector<std::string> words) {
        command_line::Program program("sample", "A sample");
        command_line::Command& show = program.addCommand("show", "Show something");
        show.addFlag("--loud", loud, "Loudly");
        show.setAction([] { return 3; });
        command_line::Command& run = program.addCommand("run", "Run something");
        run.addFlag("--loud", loud, "Loudly");
        run.addOption("--state", "DIR", folder, "Keep the state");
        run.addArgument("MACHINE", machine, "Where it runs");
        run.addUserCommand(command, "What runs");
        run.setAction([] { return 4; });

        std::vector<char*> arguments = {const_cast<char*>("/bin/other-name")};
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        std::ostringstream out;
        std::ostringstream error;
        std::streambuf* const formerOut = std::cout.rdbuf(out.rdbuf());
        std::streambuf* const formerError = std::cerr.rdbuf(error.rdbuf());
        status = program.run(static_cast<int>(arguments.size()), arguments.data());
        std::cout.rdbuf(formerOut);
        std::cerr.rdbuf(formerError);
        output = out.str();
        errors = error.str();
    }
};

TEST(CommandLine, NamesWhatIsWrongAndTheNearestMatch) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "sample: COMMAND is required. See 'sample --help'."},
        {{"shw"}, "sample: unknown command 'shw'; did you mean 'show'? See 'sample --help'."},
        {{"help"}, "sample: unknown command 'help'; did you mean '--help'? See 'sample --help'."},
        {{"other"}, "sample: unknown command 'other'; there are show, run. See 'sample --help'."},
        {{"rx"}, "sample: unknown command 'rx'; there are show, run. See 'sample --help'."},
        {{""}, "sample: unknown command ''; there are show, run. See 'sample --help'."},
        {{"--foo"}, "sample: unknown option '--foo'; there are --help, --version. See 'sample --help'."},
        {{"run", "--state=", "ember", "x"}, "sample run: --state: DIR is empty. See 'sample run --help'."},
        {{"run", "--state", "", "ember", "x"}, "sample run: --state: DIR is empty. See 'sample run --help'."},
        {{"--varsion"}, "sample: unknown option '--varsion'; did you mean '--version'? See 'sample --help'."},
        {{"show", "--load=1"},
         "sample show: unknown option '--load'; did you mean '--loud'? See 'sample show --help'."},
        {{"show", "run"},
         "sample show: The following argument was not expected: run. See 'sample show --help'."},
        {{"run"}, "sample run: MACHINE is required. See 'sample run --help'."},
        {{"run", "ember", "--"}, "sample run: COMMAND is required. See 'sample run --help'."},
        {{"run", "--stat", "ember", "x"},
         "sample run: unknown option '--stat'; did you mean '--state'? See 'sample run --help'."},
        {{"run", "--loud", "--state"},
         "sample run: --state: 1 required DIR missing. See 'sample run --help'."},
    };
    for (const auto& [words, message] : cases) {
        const Sample sample(words);
        EXPECT_EQ(sample.status, 2);
        EXPECT_EQ(sample.errors, message + "\n");
        EXPECT_EQ(sample.output, "");
    }
}

TEST(CommandLine, LeavesTheUsersCommandAlone) {
    for (const std::vector<std::string>& begin : {std::vector<std::string>{"run", "--state", "dir", "list"},
                                                  {"run", "--state=dir", "list", "--"},
                                                  {"run", "--state", "dir", "--", "list"}}) {
        std::vector<std::string> words = begin;
        words.insert(words.end(), {"show", "--help", "--state", "a b", "--", "-x"});
        const Sample sample(words);
        EXPECT_EQ(sample.status, 4) << sample.errors;
        EXPECT_EQ(sample.folder, "dir");
        EXPECT_EQ(sample.machine, "list");
        EXPECT_THAT(sample.command, ElementsAre("show", "--help", "--state", "a b", "--", "-x"));
        EXPECT_FALSE(sample.loud);
    }
}

TEST(CommandLine, RunsTheActionAndPrintsHelpAndVersion) {
    const Sample shown({"show", "--loud"});
    EXPECT_EQ(shown.status, 3);
    EXPECT_TRUE(shown.loud);

    const Sample help({"run", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output,
                StartsWith("Run something\n"
                           "Usage: sample run [--loud] [--state DIR] MACHINE [--] COMMAND [ARGUMENT...]\n"));
    EXPECT_THAT(Sample({"-h"}).output,
                StartsWith("A sample\nUsage: sample [--version] COMMAND [ARGUMENT...]\n"));
    EXPECT_EQ(Sample({"--version"}).output, "sample " KV_VERSION "\n");
}

}  // namespace
