#include "Pace.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "model_error.h"

namespace brevane {

namespace {

/** A stop request that finds the model waiting for a trigger is noticed after this time at the latest. */
constexpr std::chrono::milliseconds kLongestTriggerWait{100};

}  // namespace

bool ClockPace::await(Trigger& next) {
    next = lastDue_ ? following(*lastDue_) : Trigger{end_.origin(), 0};
    lastDue_ = next.due;
    return !end_.hasComeBy(next.due) && sleepUntil(next.due);
}

Trigger ClockPace::following(RunEnd::Clock::time_point due) const {
    Trigger next{due + period_, 0};
    const auto now = RunEnd::Clock::now();
    if (now >= next.due) {
        const auto missed = (now - next.due) / period_ + 1;
        next.due += missed * period_;
        next.missed = static_cast<std::uint64_t>(missed);
    }
    return next;
}

/** @return false when the run is to end; signals that don't end it don't cut the wait short either */
bool ClockPace::sleepUntil(RunEnd::Clock::time_point due) const {
    const auto sinceBoot = due.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceBoot);
    const timespec deadline{seconds.count(), (sinceBoot - seconds).count()};
    while (!end_.isRequested()) {
        if (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) != EINTR) {
            return !end_.isRequested();
        }
    }
    return false;
}

bool TriggerPace::await(Trigger& next) {
    while (!end_.isRequested()) {
        const auto timeLeft = std::chrono::ceil<std::chrono::milliseconds>(end_.timeLeft());
        if (timeLeft <= timeLeft.zero()) {
            return false;
        }
        Trigger trigger;
        if (model_.awaitTrigger(std::min(timeLeft, kLongestTriggerWait), trigger)) {
            next = trigger;
            return !end_.isRequested() && !end_.hasComeBy(next.due);
        }
        throwModelError(model_);
    }
    return false;
}

std::unique_ptr<Pace> makePace(const Model& model, const RunEnd& end) {
    if (model.awaitTrigger != nullptr) {
        return std::make_unique<TriggerPace>(model, end);
    }
    return std::make_unique<ClockPace>(model.basePeriod, end);
}

}  // namespace brevane
