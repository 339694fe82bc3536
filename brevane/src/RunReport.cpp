#include <ostream>

#include <brevane/Kernel.h>

#include "duration_text.h"

namespace brevane {

std::ostream& operator<<(std::ostream& out, const RunReport& report) {
    out << "model       " << report.model << '\n'
        << "steps       " << report.steps << '\n'
        << "overruns    " << report.overruns << " (" << report.skippedPeriods << " periods skipped)\n"
        << (report.triggered ? "latency     " : "jitter      ") << durationText(report.medianLatency)
        << " median, " << durationText(report.percentile99Latency) << " 99th percentile, "
        << durationText(report.percentile999Latency) << " 99.9th percentile, "
        << durationText(report.maxLatency) << " maximum\n"
        << "step time   " << durationText(report.maxStepTime) << " maximum\n"
        << "priority    " << (report.realTime ? "real-time" : "normal") << '\n'
        << "result      " << (report.error.empty() ? "good" : report.error) << '\n';
    return out;
}

}  // namespace brevane
