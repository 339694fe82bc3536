#include "report_json.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <ostream>
#include <string>
#include <sys/utsname.h>
#include <type_traits>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

namespace brevane {

namespace {

using Json = nlohmann::ordered_json;

/** Of the keys and what they mean; it grows when one changes its meaning or goes. */
constexpr int kFormat = 1;

constexpr const char* kVerdictNames[] = {"good", "overran", "failed"};

double inMicroseconds(std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / 1e3;
}

/** Null where there was no step to measure. */
Json measured(const RunReport& report, std::chrono::nanoseconds time) {
    return report.steps == 0 ? Json(nullptr) : Json(inMicroseconds(time));
}

Json orNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

/** Calendar time in UTC, as ISO 8601 writes it. */
Json calendarTime(std::chrono::system_clock::time_point moment) {
    if (moment == std::chrono::system_clock::time_point()) {
        return nullptr;
    }
    const std::time_t seconds = std::chrono::system_clock::to_time_t(moment);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[sizeof "-2147483648-12-31T23:59:60Z"];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

Json latencyJson(const RunReport& report) {
    Json histogram = Json::array();
    for (const LatencyBucket& bucket : report.latency) {
        histogram.push_back({{"from_us", inMicroseconds(bucket.from)},
                             {"up_to_us", inMicroseconds(bucket.upTo)},
                             {"steps", bucket.steps}});
    }
    return {{"median_us", measured(report, report.medianLatency)},
            {"p99_us", measured(report, report.percentile99Latency)},
            {"p999_us", measured(report, report.percentile999Latency)},
            {"max_us", measured(report, report.maxLatency)},
            {"histogram", std::move(histogram)}};
}

/** The first line of each name in /proc/cpuinfo, and how many processors it lists. */
Json cpuJson(const RunReport& report) {
    std::ifstream file("/proc/cpuinfo");
    std::map<std::string, std::string> properties;
    int processors = 0;
    for (std::string line; std::getline(file, line);) {
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos) {
            const std::string name = line.substr(0, line.find_last_not_of(" \t", colon - 1) + 1);
            properties.emplace(name, line.substr(std::min(colon + 2, line.size())));
            processors += name == "processor" ? 1 : 0;
        }
    }
    // Processors of Arm have numbers for a name.
    const std::string model =
        properties.contains("CPU part")
            ? "implementer " + properties["CPU implementer"] + ", part " + properties["CPU part"]
            : properties["model name"];
    return {{"model", orNull(model)}, {"online", processors}, {"base_rate", report.cpus}};
}

Json kernelJson() {
    utsname names{};
    uname(&names);
    return {{"name", names.sysname},
            {"release", names.release},
            {"version", names.version},
            {"architecture", names.machine},
            {"host_name", names.nodename}};
}

Json paceJson(const RunReport& report) {
    return {{"source", report.triggered ? "trigger" : "clock"},
            {"device", orNull(report.triggerDevice)},
            {"base_period_us", report.triggered ? Json(nullptr) : Json(inMicroseconds(report.basePeriod))}};
}

Json accountJson(const RunReport& report) {
    Json account = Json::object();
    for (const Fact& fact : report.facts) {
        std::visit(
            [&entry = account[fact.section][fact.key]](const auto& value) {
                if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::monostate>) {
                    entry = nullptr;
                } else {
                    entry = value;
                }
            },
            fact.value);
    }
    return account;
}

}  // namespace

void printJson(std::ostream& out, const RunReport& report) {
    const Json json = {
        {"format", kFormat},
        {"model", report.model},
        {"verdict", kVerdictNames[static_cast<int>(report.verdict())]},
        {"error", orNull(report.error)},
        {"begin", calendarTime(report.begin)},
        {"duration_s", std::chrono::duration<double>(report.duration).count()},
        {"pace", paceJson(report)},
        {"steps", report.steps},
        {"overruns", report.overruns},
        {"skipped_periods", report.skippedPeriods},
        {"skipped_percent", report.skippedPercent()},
        {"max_skipped_percent", report.maxSkippedPercent},
        {"latency", latencyJson(report)},
        {"max_step_time_us", measured(report, report.maxStepTime)},
        {"rights", {{"real_time", report.realTime}, {"memory_locked", report.memoryLocked}}},
        {"cpu", cpuJson(report)},
        {"kernel", kernelJson()},
        {"versions", {{"brevane", BREVANE_VERSION}}},
        {"account", accountJson(report)},
    };
    // Errors and facts may hold what files of the machine hold, which need not be UTF-8.
    out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace brevane
