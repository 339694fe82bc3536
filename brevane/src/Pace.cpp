#include "Pace.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <stdexcept>

#include "duration_text.h"
#include "model_error.h"

namespace brevane {

namespace {

constexpr std::chrono::milliseconds kShortestTriggerWait{1};
/** A stop request that finds the model waiting for a trigger is noticed after this time at the latest. */
constexpr std::chrono::milliseconds kLongestTriggerWait{100};

/** A regular trigger that is silent for this long, and for so many periods, has stopped. */
constexpr std::chrono::milliseconds kShortestSilence{500};
constexpr int kShortestSilencePeriods = 10;

}  // namespace

bool ClockPace::await(Trigger& next) {
    next = lastDue_ ? following(*lastDue_) : Trigger{end_.origin(), 0};
    lastDue_ = next.due;
    if (end_.hasComeBy(next.due)) {
        return false;
    }
    if (sleepUntil(next.due)) {
        return true;
    }
    // Where the process was stopped as it slept, more periods have passed.
    const auto late = RunEnd::Clock::now() - next.due;
    next.missed += late > late.zero() ? static_cast<std::uint64_t>(late / period_) : 0;
    return false;
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

TriggerPace::TriggerPace(const Model& model, const RunEnd& end, const TriggerWatch& watch)
    : model_(model),
      end_(end),
      device_(watch.device),
      timeout_(watch.timeout == watch.timeout.zero() ? watch.timeout.max() : watch.timeout) {}

bool TriggerPace::await(Trigger& next) {
    const auto begin = RunEnd::Clock::now();
    bool isLastWait = false;
    while (!isLastWait) {
        // The last wait begins when the time is over. It is short, and finds what fired during the last step
        // or while the process was stopped.
        const auto timeLeft = std::min(end_.timeLeft(), timeout_ - (RunEnd::Clock::now() - begin));
        isLastWait = timeLeft <= timeLeft.zero();
        Trigger trigger;
        if (model_.awaitTrigger(std::clamp(std::chrono::ceil<std::chrono::milliseconds>(timeLeft),
                                           kShortestTriggerWait, kLongestTriggerWait),
                                trigger)) {
            next = trigger;
            const bool isDueInTheRun = !end_.isRequested() && !end_.hasComeBy(next.due);
            steps_ += isDueInTheRun ? 1 : 0;
            return isDueInTheRun;
        }
        throwModelError(model_);
    }
    judgeSilence(RunEnd::Clock::now() - begin);
    return false;
}

/** @throw std::runtime_error where the trigger was silent for longer than it may */
void TriggerPace::judgeSilence(std::chrono::nanoseconds silence) const {
    const bool isTimeout = silence >= timeout_;
    const bool hasStopped = model_.triggerPeriod > model_.triggerPeriod.zero() &&
                            silence >= kShortestSilence &&
                            silence / model_.triggerPeriod >= kShortestSilencePeriods;
    if (!isTimeout && !hasStopped && steps_ > 0) {
        return;
    }
    throw std::runtime_error("no trigger" + (device_.empty() ? "" : " from " + device_) + " in " +
                             durationText(silence) + " since " +
                             (steps_ == 0 ? "the start" : "step " + std::to_string(steps_)) +
                             (isTimeout ? "" : ", when the run was to end"));
}

std::unique_ptr<Pace> makePace(const Model& model, const RunEnd& end, const TriggerWatch& watch) {
    if (model.awaitTrigger != nullptr) {
        return std::make_unique<TriggerPace>(model, end, watch);
    }
    return std::make_unique<ClockPace>(model.basePeriod, end);
}

}  // namespace brevane
