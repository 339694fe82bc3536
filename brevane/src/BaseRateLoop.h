#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include <brevane/Kernel.h>

#include "LatencyHistogram.h"
#include "Pace.h"

namespace brevane {

/** Calls a model's step at the model's pace, and keeps account of how well that went. */
class BaseRateLoop {
 public:
    /** @param stopTime zero for no end */
    BaseRateLoop(const Model& model, std::chrono::nanoseconds stopTime,
                 const std::atomic<bool>& stopRequested, TriggerWatch watch);

    /**
     * Runs on the calling thread until the stop time or a request to stop.
     *
     * @throw std::runtime_error with the model's error status, or where a trigger is missing or no step was
     *        taken; whatever a step throws passes through
     */
    void run();

    /** Adds the account to a report. */
    void describe(RunReport& report) const;

 private:
    using Clock = std::chrono::steady_clock;

    void takeStep(Clock::time_point due);
    void countOverrun(std::uint64_t skipped);

    const Model& model_;
    std::chrono::nanoseconds stopTime_;
    const std::atomic<bool>& stopRequested_;
    TriggerWatch watch_;

    LatencyHistogram latency_;
    std::chrono::nanoseconds lastLatency_{0};
    std::chrono::nanoseconds lastStepTime_{0};
    std::chrono::nanoseconds maxStepTime_{0};
    std::uint64_t steps_ = 0;
    std::uint64_t overruns_ = 0;
    std::uint64_t skippedPeriods_ = 0;
};

}  // namespace brevane
