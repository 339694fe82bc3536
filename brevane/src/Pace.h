#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <brevane/Kernel.h>

namespace brevane {

/** Which device triggers the steps, and how long it may be silent. */
struct TriggerWatch {
    std::string device;
    /** Zero for no limit. */
    std::chrono::nanoseconds timeout;
};

/** When a run is to end. The run begins with the object. */
class RunEnd {
 public:
    using Clock = std::chrono::steady_clock;

    /** @param stopTime zero for no end but the requested one */
    RunEnd(std::chrono::nanoseconds stopTime, const std::atomic<bool>& requested)
        : stopTime_(stopTime == stopTime.zero() ? stopTime.max() : stopTime), requested_(requested) {}

    [[nodiscard]] Clock::time_point origin() const noexcept { return origin_; }
    [[nodiscard]] bool isRequested() const noexcept { return requested_; }
    [[nodiscard]] bool hasComeBy(Clock::time_point moment) const noexcept {
        return moment - origin_ >= stopTime_;
    }
    /** Not above zero once the stop time has come or a stop was requested. */
    [[nodiscard]] std::chrono::nanoseconds timeLeft() const {
        return isRequested() ? std::chrono::nanoseconds(0) : stopTime_ - (Clock::now() - origin_);
    }

 private:
    std::chrono::nanoseconds stopTime_;
    const std::atomic<bool>& requested_;
    Clock::time_point origin_ = Clock::now();
};

/** Tells when the next step is due. */
class Pace {
 public:
    virtual ~Pace() = default;

    /**
     * Blocks until the next step is due.
     *
     * @param next when that was, and how many base periods passed without a step since the last one; their
     *             number holds at the run's end too
     * @return false when the run ends first
     * @throw std::runtime_error with the model's error status, or where a trigger is missing
     */
    virtual bool await(Trigger& next) = 0;
};

/** Steps on an absolute grid of CLOCK_MONOTONIC, the first one due when the run begins. */
class ClockPace : public Pace {
 public:
    ClockPace(std::chrono::nanoseconds period, const RunEnd& end) : period_(period), end_(end) {}
    bool await(Trigger& next) override;

 private:
    [[nodiscard]] Trigger following(RunEnd::Clock::time_point due) const;
    [[nodiscard]] bool sleepUntil(RunEnd::Clock::time_point due) const;

    std::chrono::nanoseconds period_;
    const RunEnd& end_;
    std::optional<RunEnd::Clock::time_point> lastDue_;
};

/** Steps whenever the model's trigger fires. */
class TriggerPace : public Pace {
 public:
    TriggerPace(const Model& model, const RunEnd& end, const TriggerWatch& watch);
    bool await(Trigger& next) override;

 private:
    void judgeSilence(std::chrono::nanoseconds silence) const;

    const Model& model_;
    const RunEnd& end_;
    std::string device_;
    std::chrono::nanoseconds timeout_;
    std::uint64_t steps_ = 0;
};

/** The pace that the model asks for. */
std::unique_ptr<Pace> makePace(const Model& model, const RunEnd& end, const TriggerWatch& watch);

}  // namespace brevane
