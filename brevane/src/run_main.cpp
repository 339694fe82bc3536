#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <brevane/Kernel.h>

#include "output_file.h"
#include "report_json.h"

namespace brevane {

namespace {

constexpr const char* kExitStatuses =
    "Exit status: 0 the run was good, 1 it failed or a file could not be written, 2 wrong usage,\n"
    "3 more periods were skipped than --max-skipped permits.";

/** Accepts numbers in a range that @p rangeText names. */
CLI::Validator isInRange(double lowest, double highest, const std::string& rangeText) {
    return {[=](const std::string& text) {
                double value = 0;
                // What is not a number compares false with everything.
                const bool isIn =
                    CLI::detail::lexical_cast(text, value) && value >= lowest && value <= highest;
                return isIn ? "" : "\"" + text + "\" is not a number " + rangeText;
            },
            ""};
}

std::chrono::nanoseconds fromSeconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}

/** Prints an error of @p program to standard error. */
void complain(const std::string& program, const std::string& message) {
    std::cerr << program << ": " << message << std::endl;
}

/** An option that names a file to write after the run. Failures are reported on standard error. */
class FileOption {
 public:
    FileOption(CLI::App& app, const std::string& program, const char* name, const char* description)
        : program_(program),
          name_(name),
          option_(app.add_option(name, path_, description)->type_name("FILE")) {}

    /** True also where the option isn't given. */
    bool open() {
        return option_->empty() || succeeds([&] { file_.emplace(path_); });
    }

    /** Whether this option and another name one file, which is reported. */
    [[nodiscard]] bool collidesWith(const FileOption& other) const {
        const bool collides = file_ && other.file_ && file_->isSameFile(*other.file_);
        if (collides) {
            complain(program_, name_ + " and " + other.name_ + " name the same file: " + path_);
        }
        return collides;
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
            complain(program_, name_ + ' ' + path_ + ": " + failure.what());
            return false;
        }
    }

    std::string program_;
    std::string name_;
    std::string path_;
    CLI::Option* option_;
    std::optional<OutputFile> file_;
};

void printLatency(std::ostream& out, const RunReport& report) {
    const auto microseconds = [&out](std::chrono::nanoseconds time) {
        out << time.count() / 1000 << '.' << std::setfill('0') << std::setw(3) << time.count() % 1000 << ',';
    };
    out << "from_us,up_to_us,steps\n";
    for (const LatencyBucket& bucket : report.latency) {
        microseconds(bucket.from);
        microseconds(bucket.upTo);
        out << bucket.steps << '\n';
    }
}

/** What the command line sets. */
struct Settings {
    double stopTimeSeconds = 0;
    double maxSkippedPercent = 0;
    double triggerTimeoutSeconds = std::chrono::duration<double>(Kernel::kTriggerTimeout).count();
};

void addSettings(CLI::App& app, const Model& model, Settings& settings) {
    constexpr double kShortest = 1e-9;
    constexpr double kLongest = 1e9;
    app.add_option("--stop-time", settings.stopTimeSeconds, "End the run after this time")
        ->check(isInRange(kShortest, kLongest, "of seconds between 1e-9 and 1e9"))
        ->type_name("SECONDS");
    app.add_option("--max-skipped", settings.maxSkippedPercent,
                   "Permit this share of periods without a step (default 0)")
        ->check(isInRange(0, 100, "between 0 and 100"))
        ->type_name("PERCENT");
    if (model.awaitTrigger != nullptr) {
        app.add_option("--trigger-timeout", settings.triggerTimeoutSeconds,
                       "Fail when no trigger comes for this time (default 5); 0 waits without limit")
            ->check(isInRange(0, kLongest, "of seconds between 0 and 1e9"))
            ->type_name("SECONDS");
    }
}

/** The files that the command line names. */
class Files {
 public:
    Files(CLI::App& app, const Model& model)
        : model_(model),
          latency_(app, model.name, "--latency", "Write the histogram of the latencies of the steps"),
          report_(app, model.name, "--report", "Write the report as JSON") {
        if (model.record != nullptr) {
            record_.emplace(app, model.name, "--record", "Write what the model records");
        }
    }

    bool open() {
        return latency_.open() && report_.open() && !report_.collidesWith(latency_) &&
               (!record_ ||
                (record_->open() && !record_->collidesWith(latency_) && !record_->collidesWith(report_)));
    }

    /** Writes them all, whichever of them fail. */
    bool write(const RunReport& report) {
        const bool latencyWritten = latency_.write([&](std::ostream& out) { printLatency(out, report); });
        const bool reportWritten = report_.write([&](std::ostream& out) { printJson(out, report); });
        const bool recordWritten = !record_ || record_->write(model_.record);
        return latencyWritten && reportWritten && recordWritten;
    }

 private:
    const Model& model_;
    FileOption latency_;
    FileOption report_;
    std::optional<FileOption> record_;
};

/** Whether all that @p print puts into standard output could be written; otherwise prints why not. */
template <typename Print>
bool writesToStandardOutput(const std::string& program, Print&& print) {
    errno = 0;
    print();
    if (std::cout.flush()) {
        return true;
    }
    complain(program, std::string("standard output can't be written") +
                          (errno == 0 ? "" : std::string(": ") + std::strerror(errno)));
    return false;
}

ExitStatus exitStatusOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Good:
            return kExitGood;
        case Verdict::Overran:
            return kExitOverran;
        case Verdict::Failed:
            break;
    }
    return kExitFailed;
}

/** Names the first argument that the parser does not know. */
std::string describeUnknown(const CLI::App& app) {
    const std::vector<std::string> words = app.remaining();
    const std::string& word = words[words.size() > 1 && words.front() == "--" ? 1 : 0];
    return word.starts_with('-') ? "unknown option '" + word.substr(0, word.find('=')) + "'"
                                 : "unexpected argument '" + word + "'";
}

/** Refuses the command line. */
ExitStatus refuse(const CLI::App& app, const std::string& program, const CLI::ParseError& wrong) {
    const bool isUnknown = wrong.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
    complain(program, (isUnknown ? describeUnknown(app) : wrong.what()) + ". See '" + program + " --help'.");
    return kExitUsage;
}

}  // namespace

int runMain(int argc, char** argv, const Model& model) {
    CLI::App app("Runs the model " + model.name + " until SIGINT or SIGTERM, or for a given time.");
    app.footer(kExitStatuses);
    Settings settings;
    addSettings(app, model, settings);
    Files files(app, model);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        const bool printed = writesToStandardOutput(model.name, [&] { app.exit(success); });  // the help
        return printed ? kExitGood : kExitFailed;
    } catch (const CLI::ParseError& wrong) {
        return refuse(app, model.name, wrong);
    }
    if (!files.open()) {
        return kExitFailed;
    }

    Kernel kernel(model);
    kernel.setStopTime(fromSeconds(settings.stopTimeSeconds));
    kernel.setMaxSkipped(settings.maxSkippedPercent);
    kernel.setTriggerTimeout(fromSeconds(settings.triggerTimeoutSeconds));
    const RunReport report = kernel.run();
    const bool printed = writesToStandardOutput(model.name, [&] { std::cout << report; });
    const bool written = files.write(report);
    return printed && written ? exitStatusOf(report.verdict()) : kExitFailed;
}

}  // namespace brevane
