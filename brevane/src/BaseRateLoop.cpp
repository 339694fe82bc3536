#include "BaseRateLoop.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>

#include "duration_text.h"
#include "kernel_log.h"
#include "model_error.h"

namespace brevane {

namespace {

namespace trivial = boost::log::trivial;

/** @return false when the run is to end; signals that don't end it don't cut the wait short either */
bool waitUntil(std::chrono::steady_clock::time_point due, const std::atomic<bool>& stopRequested) {
    const auto sinceBoot = due.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceBoot);
    const timespec deadline{seconds.count(), (sinceBoot - seconds).count()};
    while (!stopRequested) {
        if (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) != EINTR) {
            return !stopRequested;
        }
    }
    return false;
}

}  // namespace

BaseRateLoop::BaseRateLoop(const Model& model, std::chrono::nanoseconds stopTime,
                           const std::atomic<bool>& stopRequested)
    : model_(model), stopTime_(stopTime), stopRequested_(stopRequested) {}

void BaseRateLoop::run() {
    const auto origin = Clock::now();
    auto due = origin;
    while (stopTime_ == stopTime_.zero() || due - origin < stopTime_) {
        if (!waitUntil(due, stopRequested_)) {
            return;
        }
        const auto begin = Clock::now();
        jitter_.add(begin - due);
        model_.step();
        const auto end = Clock::now();
        ++steps_;
        maxStepTime_ = std::max(maxStepTime_, end - begin);
        throwModelError(model_);

        due += model_.basePeriod;
        if (end >= due) {
            const auto skipped = (end - due) / model_.basePeriod + 1;
            countOverrun(begin - (due - model_.basePeriod), end - begin, static_cast<std::uint64_t>(skipped));
            due += skipped * model_.basePeriod;
        }
    }
}

void BaseRateLoop::countOverrun(std::chrono::nanoseconds lateness, std::chrono::nanoseconds stepTime,
                                std::uint64_t skipped) {
    if (overruns_ == 0) {
        log(trivial::warning, "step " + std::to_string(steps_) + " began " + durationText(lateness) +
                                  " late, took " + durationText(stepTime) +
                                  " and overran the base period of " + durationText(model_.basePeriod) +
                                  "; further overruns are counted");
    }
    ++overruns_;
    skippedPeriods_ += skipped;
}

void BaseRateLoop::describe(RunReport& report) const {
    report.steps = steps_;
    report.overruns = overruns_;
    report.skippedPeriods = skippedPeriods_;
    report.medianJitter = jitter_.quantile(0.5);
    report.percentile99Jitter = jitter_.quantile(0.99);
    report.maxJitter = jitter_.max();
    report.maxStepTime = maxStepTime_;
}

}  // namespace brevane
