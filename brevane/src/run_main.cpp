#include <chrono>
#include <exception>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include <brevane/Kernel.h>

#include "output_file.h"

namespace brevane {

namespace {

constexpr int kExitGood = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// What is not a number compares false with everything, so the range is asked for, not excluded.
std::string checkSeconds(const std::string& text) {
    constexpr double kShortest = 1e-9;
    constexpr double kLongest = 1e9;
    double seconds = 0;
    const bool inRange =
        CLI::detail::lexical_cast(text, seconds) && seconds >= kShortest && seconds <= kLongest;
    return inRange ? "" : "\"" + text + "\" is no number of seconds between 1e-9 and 1e9";
}

/** An option that names a file to write after the run. What can't be done is told on standard error. */
class FileOption {
 public:
    FileOption(CLI::App& app, const char* name, const char* description)
        : name_(name), option_(app.add_option(name, path_, description)->type_name("FILE")) {}

    /** True also where the option isn't given. */
    bool open() {
        return option_->empty() || succeeds([&] { file_.emplace(path_); });
    }

    /** Writes what @p print puts into a stream. True also where the option isn't given. */
    template <typename Print>
    bool write(Print&& print) {
        return !file_ || succeeds([&] {
            std::ostringstream content;
            print(content);
            file_->write(content.str());
        });
    }

 private:
    template <typename Action>
    bool succeeds(Action&& action) {
        try {
            action();
            return true;
        } catch (const std::exception& failure) {
            std::cerr << name_ << ' ' << path_ << ": " << failure.what() << std::endl;
            return false;
        }
    }

    const char* name_;
    std::string path_;
    CLI::Option* option_;
    std::optional<OutputFile> file_;
};

void printLatency(std::ostream& out, const RunReport& report) {
    out << "upper_bound_us,steps\n";
    for (const LatencyBucket& bucket : report.latency) {
        out << bucket.upTo.count() / 1000 << '.' << std::setfill('0') << std::setw(3)
            << bucket.upTo.count() % 1000 << ',' << bucket.steps << '\n';
    }
}

}  // namespace

int runMain(int argc, char** argv, const Model& model) {
    CLI::App app("Runs the model " + model.name + " until SIGINT or SIGTERM, or for a given time.");
    double stopTimeSeconds = 0;
    app.add_option("--stop-time", stopTimeSeconds, "End the run after this time")
        ->check(CLI::Validator(checkSeconds, ""))
        ->type_name("SECONDS");
    FileOption latency(app, "--latency", "Write the histogram of the latencies of the steps");
    std::optional<FileOption> record;
    if (model.record != nullptr) {
        record.emplace(app, "--record", "Write what the model records");
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        return app.exit(wrong) == 0 ? kExitGood : kExitUsage;
    }

    if (!latency.open() || (record && !record->open())) {
        return kExitFailed;
    }

    Kernel kernel(model);
    kernel.setStopTime(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(stopTimeSeconds)));
    const RunReport report = kernel.run();
    std::cout << report << std::flush;
    const bool latencyWritten = latency.write([&](std::ostream& out) { printLatency(out, report); });
    const bool recordWritten = !record || record->write(model.record);
    return report.error.empty() && latencyWritten && recordWritten ? kExitGood : kExitFailed;
}

}  // namespace brevane
