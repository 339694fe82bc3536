#include <iomanip>
#include <ostream>
#include <sstream>

#include <brevane/Kernel.h>

#include "count_text.h"
#include "duration_text.h"

namespace brevane {

namespace {

std::string percentText(double percent) {
    std::ostringstream text;
    text << std::setprecision(4) << percent << " %";
    return text.str();
}

void printVerdict(std::ostream& out, const RunReport& report) {
    if (report.verdict() == Verdict::Failed) {
        out << "failed: " << report.error;
        return;
    }
    const std::string share = percentText(report.skippedPercent()) + " of the periods skipped";
    if (report.verdict() == Verdict::Overran) {
        out << "overran: " << report.overruns << " of " << countText(report.steps, "step") << ", " << share;
    } else {
        out << "good" << (report.skippedPeriods > 0 ? ": " + share : "");
    }
    if (report.skippedPeriods > 0 && report.maxSkippedPercent > 0) {
        out << " (up to " << percentText(report.maxSkippedPercent) << " permitted)";
    }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const RunReport& report) {
    out << "model       " << report.model << '\n'
        << "steps       "
        << (report.steps == 0 ? "none"
                              : std::to_string(report.steps) + " in " + durationText(report.duration))
        << '\n'
        << "overruns    " << report.overruns << " (" << countText(report.skippedPeriods, "period")
        << " skipped)\n";
    if (report.steps > 0) {
        out << (report.triggered ? "latency     " : "jitter      ") << durationText(report.medianLatency)
            << " median, " << durationText(report.percentile99Latency) << " 99th percentile, "
            << durationText(report.percentile999Latency) << " 99.9th percentile, "
            << durationText(report.maxLatency) << " maximum\n"
            << "step time   " << durationText(report.maxStepTime) << " maximum\n";
    }
    out << "priority    " << (report.realTime ? "real-time" : "normal") << '\n' << "result      ";
    printVerdict(out, report);
    return out << '\n';
}

}  // namespace brevane
