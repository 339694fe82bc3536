#include "BaseRateLoop.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "count_text.h"
#include "duration_text.h"
#include "kernel_log.h"
#include "model_error.h"

namespace brevane {

namespace {

namespace trivial = boost::log::trivial;

}  // namespace

BaseRateLoop::BaseRateLoop(const Model& model, std::chrono::nanoseconds stopTime,
                           const std::atomic<bool>& stopRequested, TriggerWatch watch)
    : model_(model), stopTime_(stopTime), stopRequested_(stopRequested), watch_(std::move(watch)) {}

void BaseRateLoop::run() {
    const RunEnd end(stopTime_, stopRequested_);
    const auto pace = makePace(model_, end, watch_);
    bool goesOn = true;
    while (goesOn) {
        Trigger next;
        goesOn = pace->await(next);
        // Nobody waited for triggers before the first step.
        if (next.missed > 0 && steps_ > 0) {
            countOverrun(next.missed);
        }
        if (goesOn) {
            takeStep(next.due);
        }
    }
    if (steps_ == 0) {
        throw std::runtime_error("the run ended before its first step");
    }
}

void BaseRateLoop::takeStep(Clock::time_point due) {
    const auto begin = Clock::now();
    lastLatency_ = begin - due;
    latency_.add(lastLatency_);
    model_.step();
    lastStepTime_ = Clock::now() - begin;
    ++steps_;
    maxStepTime_ = std::max(maxStepTime_, lastStepTime_);
    throwModelError(model_);
}

void BaseRateLoop::countOverrun(std::uint64_t skipped) {
    if (overruns_ == 0) {
        log(trivial::warning, "step " + std::to_string(steps_) + " began " + durationText(lastLatency_) +
                                  " late and took " + durationText(lastStepTime_) + "; " +
                                  countText(skipped, "base period") +
                                  " passed without a step; further overruns are counted");
    }
    ++overruns_;
    skippedPeriods_ += skipped;
}

void BaseRateLoop::describe(RunReport& report) const {
    report.steps = steps_;
    report.overruns = overruns_;
    report.skippedPeriods = skippedPeriods_;
    report.medianLatency = latency_.quantile(0.5);
    report.percentile99Latency = latency_.quantile(0.99);
    report.percentile999Latency = latency_.quantile(0.999);
    report.maxLatency = latency_.max();
    report.latency = latency_.buckets();
    report.maxStepTime = maxStepTime_;
}

}  // namespace brevane
