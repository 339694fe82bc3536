#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Kernel.h>

using brevane::Model;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

Outcome runMain(std::vector<std::string> arguments, const Model& model, std::streambuf* file = nullptr) {
    arguments.insert(arguments.begin(), "pump");
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::ostringstream output;
    std::ostringstream errors;
    auto* formerOutput = std::cout.rdbuf(file == nullptr ? output.rdbuf() : file);
    auto* formerErrors = std::cerr.rdbuf(errors.rdbuf());
    const int status = brevane::runMain(static_cast<int>(arguments.size()), argv.data(), model);
    std::cout.rdbuf(formerOutput);
    std::cerr.rdbuf(formerErrors);
    return {status, output.str(), errors.str()};
}

/** A pump whose first step takes three base periods. */
Model slowPump() {
    static bool isFirst = true;
    isFirst = true;
    Model model;
    model.name = "pump";
    model.basePeriod = 20ms;
    model.step = [] {
        if (std::exchange(isFirst, false)) {
            std::this_thread::sleep_for(65ms);
        }
    };
    return model;
}

TEST(RunMain, JudgesTheRunInItsLastLineAndItsExitStatus) {
    Model quick;
    quick.step = [] {};
    Model interrupted = slowPump();
    interrupted.step = [] {
        std::this_thread::sleep_for(65ms);
        std::raise(SIGTERM);
    };
    Model failing = slowPump();
    failing.errorStatus = [] { return "tank is empty"; };
    Model silent = quick;
    silent.awaitTrigger = [](std::chrono::milliseconds, brevane::Trigger&) { return false; };
    struct Case {
        Model model;
        std::vector<std::string> options;
        int status;
        const char* result;
    };
    const Case cases[] = {
        {quick, {"--stop-time=0.01", "--max-skipped=100"}, 0, "good(: .* permitted\\))?"},
        {slowPump(),
         {"--stop-time=0.2"},
         3,
         "overran: [1-9] of [1-9] steps?, [0-9.]+ % of the periods skipped"},
        {slowPump(),
         {"--stop-time=0.2", "--max-skipped=0.1"},
         3,
         "overran: .* % of the periods skipped \\(up to 0\\.1 % permitted\\)"},
        {slowPump(),
         {"--stop-time=0.2", "--max-skipped=100"},
         0,
         "good: [0-9.]+ % of the periods skipped \\(up to 100 % permitted\\)"},
        {interrupted, {}, 3, "overran: 1 of 1 step, .*"},
        {failing, {"--stop-time=0.2"}, 1, "failed: tank is empty"},
        {silent, {"--trigger-timeout=0.01"}, 1, "failed: no trigger in 1.* ms since the start"},
    };
    for (const Case& each : cases) {
        slowPump();
        const Outcome outcome = runMain(each.options, each.model);
        EXPECT_EQ(outcome.status, each.status) << outcome.output;
        EXPECT_THAT(outcome.output,
                    AllOf(StartsWith("model       "),
                          MatchesRegex("(.|\n)*\nresult      " + std::string(each.result) + "\n")));
    }
}

TEST(RunMain, RefusesAWrongCommandLineWithoutRunning) {
    Model model;
    model.name = "pump";
    model.initialize = [] { FAIL() << "the model ran"; };
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--stop-time=0", "--stop-time=-1", "--stop-time=nan", "--stop-time=inf", "--stop-time=1e300",
          "--stop-time="},
         "--stop-time: .*"},
        {{"--stop-time=1s"}, "--stop-time: \"1s\" is not a number of seconds .*"},
        {{"--max-skipped=-1", "--max-skipped=101", "--max-skipped=nan"}, "--max-skipped: .*"},
        {{"--trigger-timeout=1"}, "unknown option '--trigger-timeout'"},
        {{"--record=f"}, "unknown option '--record'"},
        {{"extra"}, "unexpected argument 'extra'"},
    };
    for (const auto& [arguments, reason] : cases) {
        for (const std::string& wrong : arguments) {
            const Outcome outcome = runMain({wrong, "--also-unknown"}, model);
            EXPECT_EQ(outcome.status, 2) << wrong;
            EXPECT_EQ(outcome.output, "") << wrong;
            EXPECT_THAT(outcome.errors, MatchesRegex("pump: " + reason + "\\. See 'pump --help'\\.\n"));
        }
    }

    const Outcome help = runMain({"--help"}, model);
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output,
                AllOf(HasSubstr("--stop-time SECONDS"), HasSubstr("Exit status: 0 the run was good")));
}

/** A model that records how many steps it has taken. */
Model recordingModel() {
    static int steps = 0;
    Model model;
    model.name = "pump";
    model.initialize = [] { steps = 0; };
    model.step = [] { ++steps; };
    model.record = [](std::ostream& out) { out << "steps\n" << steps << '\n'; };
    return model;
}

class RunMainFiles : public testing::Test {
 protected:
    RunMainFiles() {
        std::string pattern = fs::temp_directory_path() / "run_main.XXXXXX";
        folder_ = mkdtemp(pattern.data());
    }
    ~RunMainFiles() override { fs::remove_all(folder_); }

    Outcome run(const std::string& recordPath, const std::string& latencyPath, const Model& model) const {
        return runMain(
            {"--stop-time=0.02", "--max-skipped=100", "--record", recordPath, "--latency", latencyPath},
            model);
    }

    static std::string textOf(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static std::vector<std::string> linesOf(const std::string& path) {
        std::ifstream file(path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    fs::path folder_;
};

TEST_F(RunMainFiles, HoldTheRecordAndTheLatenciesOfARunAlsoOfAFailedOne) {
    const std::string recordPath = folder_ / "record.csv";
    const std::string latencyPath = folder_ / "latency.csv";
    std::ofstream(recordPath) << "of an\nearlier,\nlonger\nrun\n";
    Model model = recordingModel();
    ASSERT_EQ(run(recordPath, latencyPath, model).status, 0);
    const auto record = linesOf(recordPath);
    const auto latency = linesOf(latencyPath);
    ASSERT_EQ(record.size(), 2U);
    EXPECT_EQ(record[0], "steps");
    ASSERT_GE(latency.size(), 2U);
    EXPECT_EQ(latency[0], "from_us,up_to_us,steps");

    unsigned long steps = 0;
    double formerBound = -1;
    for (std::size_t i = 1; i < latency.size(); ++i) {
        double from = 0;
        double upTo = 0;
        unsigned long count = 0;
        ASSERT_EQ(std::sscanf(latency[i].c_str(), "%lf,%lf,%lu", &from, &upTo, &count), 3) << latency[i];
        EXPECT_GT(from, formerBound);
        EXPECT_GE(upTo, from);
        EXPECT_LT(upTo, 10e6) << "no step began ten seconds late";
        formerBound = upTo;
        steps += count;
    }
    EXPECT_EQ(std::to_string(steps), record[1]);

    model.errorStatus = [] { return "tank is empty"; };
    EXPECT_EQ(run(recordPath, latencyPath, model).status, 1);
    EXPECT_THAT(linesOf(recordPath), ElementsAre("steps", "0"));
    EXPECT_THAT(linesOf(latencyPath), ElementsAre("from_us,up_to_us,steps"));
}

/** The last group of each match. */
std::set<std::string> matches(const std::string& text, const char* pattern) {
    const std::regex regex(pattern);
    std::set<std::string> found;
    for (std::sregex_iterator each(text.begin(), text.end(), regex), end; each != end; ++each) {
        found.insert(each->str(each->size() - 1));
    }
    return found;
}

TEST_F(RunMainFiles, ReportTheRunAsJsonUnderTheDocumentedKeys) {
    Model model = slowPump();
    model.facts = [] {
        return std::vector<brevane::Fact>{{"tank", "litres", 12.5},
                                          {"tank", "label", "no \xff UTF-8"},
                                          {"tank", "sealed", true},
                                          {"tank", "valves", 3},
                                          {"tank", "maker", {}}};
    };
    const std::string path = folder_ / "report.json";
    EXPECT_EQ(runMain({"--stop-time=0.2", "--max-skipped=0.5", "--report", path}, model).status, 3);
    const std::string json = textOf(path);
    EXPECT_THAT(json,
                AllOf(HasSubstr("\n  \"model\": \"pump\",\n"), HasSubstr("\n  \"verdict\": \"overran\",\n"),
                      HasSubstr("\n  \"error\": null,\n"), HasSubstr("\n  \"max_skipped_percent\": 0.5,\n"),
                      HasSubstr("\"base_period_us\": 20000.0\n")));
    EXPECT_THAT(json, HasSubstr(R"("account": {
    "tank": {
      "litres": 12.5,
      "label": "no )"
                                "\ufffd"
                                R"( UTF-8",
      "sealed": true,
      "valves": 3,
      "maker": null
    }
  })"));

    auto written = matches(json.substr(0, json.find("\"account\"")), "\n +\"([a-z0-9_]+)\":");
    written.insert("account");
    const std::string document = textOf(REPORT_DOCUMENT);
    EXPECT_EQ(written,
              matches(document.substr(document.find("## Keys")), "\n\\| `([a-z0-9_]+\\.)*([a-z0-9_]+)` \\|"));

    model.errorStatus = [] { return "tank is empty"; };
    const Outcome failed = runMain({"--report", path}, model);
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.output, HasSubstr("steps       none\n"));
    EXPECT_THAT(textOf(path), AllOf(HasSubstr("\"verdict\": \"failed\",\n  \"error\": \"tank is empty\""),
                                    HasSubstr("\"steps\": 0,"), HasSubstr("\"median_us\": null,")));
}

TEST_F(RunMainFiles, ThatCannotBeOpenedKeepTheModelFromRunning) {
    Model model = recordingModel();
    model.initialize = [] { FAIL() << "the model ran"; };
    const std::string good = folder_ / "good.csv";
    const std::string missing = folder_ / "missing" / "record.csv";
    std::ofstream(good) << "of an earlier run\n";

    const Outcome noFolder = run(missing, good, model);
    EXPECT_EQ(noFolder.status, 1);
    EXPECT_EQ(noFolder.output, "");
    EXPECT_EQ(noFolder.errors, "pump: --record " + missing + ": No such file or directory\n");
    EXPECT_EQ(run(good, folder_, model).errors, "pump: --latency " + folder_.string() + ": Is a directory\n");
    EXPECT_EQ(run(good, "", model).status, 1);
    EXPECT_EQ(run(good, good, model).errors,
              "pump: --record and --latency name the same file: " + good + "\n");
    EXPECT_THAT(linesOf(good), ElementsAre("of an earlier run"));
}

TEST_F(RunMainFiles, ThatCannotBeWrittenFailTheRunButNotEachOther) {
    Model model = recordingModel();
    const std::string good = folder_ / "good.csv";
    const Outcome full = run(good, "/dev/full", model);
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.errors, "pump: --latency /dev/full: No space left on device\n");
    EXPECT_EQ(runMain({"--stop-time=0.02", "--max-skipped=100", "--report=/dev/full"}, model).errors,
              "pump: --report /dev/full: No space left on device\n");
    std::filebuf device;
    for (const char* option : {"--stop-time=0.02", "--help"}) {
        device.open("/dev/full", std::ios::out);
        const Outcome silent = runMain({option, "--max-skipped=100"}, model, &device);
        device.close();
        EXPECT_EQ(silent.status, 1);
        EXPECT_EQ(silent.errors, "pump: standard output can't be written: No space left on device\n");
    }
    EXPECT_EQ(linesOf(good).size(), 2U);

    model.record = [](std::ostream&) { throw std::runtime_error("valve stuck"); };
    const Outcome thrown = run(good, folder_ / "latency.csv", model);
    EXPECT_EQ(thrown.status, 1);
    EXPECT_EQ(thrown.errors, "pump: --record " + good + ": valve stuck\n");
}

}  // namespace
