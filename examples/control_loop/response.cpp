#include "response.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace {

using Steps = std::span<const RecordedStep>;

constexpr float kBand = 0.02F;

/** The number of steps until the response is in the band for good; all of them where it never is. */
std::size_t stepsToSettle(Steps interval, float change) {
    const auto isOutside = [&](const RecordedStep& step) {
        return std::fabs(step.response - step.setPoint) > kBand * std::fabs(change);
    };
    const auto lastOutside = std::find_if(interval.rbegin(), interval.rend(), isOutside);
    return static_cast<std::size_t>(std::distance(lastOutside, interval.rend()));
}

}  // namespace

Settling settlingOf(Steps record) {
    Settling result;
    if (record.empty()) {
        return result;
    }
    const auto [lowest, highest] = std::ranges::minmax_element(record, {}, &RecordedStep::setPoint);
    result.lowestSetPoint = lowest->setPoint;
    result.highestSetPoint = highest->setPoint;

    const auto nextChange = [&record](std::size_t from) {
        while (from < record.size() && record[from].setPoint == record[from - 1].setPoint) {
            ++from;
        }
        return from;
    };
    for (std::size_t begin = nextChange(1); begin < record.size();) {
        const std::size_t end = nextChange(begin + 1);
        if (end == record.size()) {
            break;  // cut short by the end of the run
        }
        const std::size_t steps = stepsToSettle(record.subspan(begin, end - begin),
                                                record[begin].setPoint - record[begin - 1].setPoint);
        ++result.changes;
        if (steps < end - begin) {
            ++result.settled;
            result.slowestTime =
                std::max(result.slowestTime, record[begin + steps].time - record[begin].time);
        }
        begin = end;
    }
    return result;
}
