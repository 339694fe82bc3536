#include <chrono>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include <brevane/Kernel.h>

namespace brevane {

namespace {

constexpr int kExitGood = 0;
constexpr int kExitModelError = 1;
constexpr int kExitUsage = 2;

/** A number that is no number at all compares false with everything, so the range is asked for, not excluded.
 */
std::string checkSeconds(const std::string& text) {
    constexpr double kShortest = 1e-9;
    constexpr double kLongest = 1e9;
    double seconds = 0;
    const bool inRange =
        CLI::detail::lexical_cast(text, seconds) && seconds >= kShortest && seconds <= kLongest;
    return inRange ? "" : "\"" + text + "\" is no number of seconds between 1e-9 and 1e9";
}

}  // namespace

int runMain(int argc, char** argv, const Model& model) {
    CLI::App app("Runs the model " + model.name + " until SIGINT or SIGTERM, or for a given time.");
    double stopTimeSeconds = 0;
    app.add_option("--stop-time", stopTimeSeconds, "End the run after this time")
        ->check(CLI::Validator(checkSeconds, ""))
        ->type_name("SECONDS");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        return app.exit(wrong) == 0 ? kExitGood : kExitUsage;
    }

    Kernel kernel(model);
    kernel.setStopTime(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(stopTimeSeconds)));
    const RunReport report = kernel.run();
    std::cout << report << std::flush;
    return report.error.empty() ? kExitGood : kExitModelError;
}

}  // namespace brevane
