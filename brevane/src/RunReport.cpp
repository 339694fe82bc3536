#include <ostream>

#include <brevane/Kernel.h>

#include "duration_text.h"

namespace brevane {

std::ostream& operator<<(std::ostream& out, const RunReport& report) {
    out << "model       " << report.model << '\n'
        << "steps       " << report.steps << '\n'
        << "overruns    " << report.overruns << " (" << report.skippedPeriods << " periods skipped)\n"
        << "jitter      " << durationText(report.medianJitter) << " median, "
        << durationText(report.percentile99Jitter) << " 99th percentile, " << durationText(report.maxJitter)
        << " maximum\n"
        << "step time   " << durationText(report.maxStepTime) << " maximum\n"
        << "priority    " << (report.realTime ? "real-time" : "normal") << '\n'
        << "result      " << (report.error.empty() ? "good" : report.error) << '\n';
    return out;
}

}  // namespace brevane
