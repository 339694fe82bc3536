#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

#include <brevane/Kernel.h>
#include <brevane/Logger.h>

#include "BaseRateLoop.h"
#include "count_text.h"
#include "duration_text.h"
#include "kernel_log.h"
#include "model_error.h"
#include "real_time.h"
#include "service_set.h"
#include "start_callbacks_internal.h"
#include "stop_signals.h"

namespace brevane {

namespace {

namespace trivial = boost::log::trivial;

/** Signal handlers and services belong to the process, so only one model runs at a time. */
class RunningModel {
 public:
    RunningModel() {
        if (exists_.exchange(true)) {
            throw std::logic_error("another model is running in this process");
        }
    }
    ~RunningModel() { exists_ = false; }
    RunningModel(const RunningModel&) = delete;
    RunningModel& operator=(const RunningModel&) = delete;

 private:
    static inline std::atomic<bool> exists_{false};
};

void check(const Model& model) {
    if (model.step == nullptr) {
        throw std::invalid_argument("the model has no step function");
    }
    if (model.basePeriod <= std::chrono::nanoseconds::zero()) {
        throw std::invalid_argument("the model's base period is not above zero");
    }
}

/** Runs one stage of a run. An error is logged, and the first one is kept in the report. */
template <typename Stage>
bool succeeds(RunReport& report, Stage&& stage) {
    try {
        stage();
        return true;
    } catch (const std::exception& failure) {
        log(trivial::error, "model " + report.model + ": " + failure.what());
        if (report.error.empty()) {
            report.error = *failure.what() != '\0' ? failure.what() : "an error without a text";
        }
        return false;
    }
}

void initialize(const Model& model) {
    if (model.initialize != nullptr) {
        model.initialize();
    }
    throwModelError(model);
}

void terminate(const Model& model) {
    if (model.terminate != nullptr) {
        model.terminate();
    }
}

std::vector<Fact> factsOf(const Model& model) {
    return model.facts != nullptr ? model.facts() : std::vector<Fact>();
}

std::string triggerDeviceOf(const Model& model) {
    const char* name = model.triggerDevice != nullptr ? model.triggerDevice() : nullptr;
    return name != nullptr ? name : "";
}

std::string reasonText(int errorNumber) {
    return std::string(" (") + std::strerror(errorNumber) + ')';
}

}  // namespace

Kernel::Kernel(Model model) : model_(std::move(model)) {}

void Kernel::setStopTime(std::chrono::nanoseconds stopTime) {
    stopTime_ = stopTime;
}

void Kernel::setMaxSkipped(double percent) {
    maxSkippedPercent_ = percent;
}

void Kernel::setTriggerTimeout(std::chrono::nanoseconds timeout) {
    triggerTimeout_ = timeout;
}

void Kernel::stop() noexcept {
    stopRequested_ = true;
}

RunReport Kernel::run() {
    Logger::setUpSinks();
    RunReport report;
    report.model = model_.name;
    report.triggered = model_.awaitTrigger != nullptr;
    report.basePeriod = model_.basePeriod;
    report.maxSkippedPercent = maxSkippedPercent_;
    succeeds(report, [&] {
        if (used_.exchange(true)) {
            throw std::logic_error("this kernel has run its model already");
        }
        check(model_);
        const RunningModel running;
        runModel(report);
    });
    return report;
}

void Kernel::runModel(RunReport& report) {
    const StopSignals signals(stopRequested_);
    ServiceSet services;
    const bool ready = succeeds(report, [&] {
        services.create();
        services.initialize();
    });
    if (!ready) {
        return;
    }

    const bool started = succeeds(report, [&] { initialize(model_); }) && succeeds(report, [&] {
                             services.start();
                             runStartCallbacks();
                             report.triggerDevice = triggerDeviceOf(model_);
                         });
    if (started) {
        runBaseRate(report);
    }
    while (services.anyStarted()) {
        succeeds(report, [&] { services.stopLast(); });
    }
    succeeds(report, [&] { terminate(model_); });
    succeeds(report, [&] { report.facts = factsOf(model_); });
}

void Kernel::runBaseRate(RunReport& report) {
    log(trivial::info, "model " + model_.name + " runs, " +
                           (report.triggered ? "its steps called by its trigger"
                                             : "base period " + durationText(model_.basePeriod)));
    BaseRateLoop loop(model_, stopTime_, stopRequested_, {report.triggerDevice, triggerTimeout_});
    {
        const LockedMemory memory;
        report.memoryLocked = memory.error() == 0;
        if (!report.memoryLocked) {
            log(trivial::warning,
                "memory is not locked" + reasonText(memory.error()) + ": page faults may delay steps");
        }
        const RealTimePriority priority(kBaseRatePriority);
        report.realTime = priority.error() == 0;
        if (!report.realTime) {
            log(trivial::warning, "no real-time rights" + reasonText(priority.error()) +
                                      ": running at normal priority, expect jitter");
        }
        report.begin = std::chrono::system_clock::now();
        const auto begin = std::chrono::steady_clock::now();
        succeeds(report, [&] { loop.run(); });
        report.duration = std::chrono::steady_clock::now() - begin;
        report.cpus = allowedCpus();
    }
    loop.describe(report);
    log(trivial::info, "model " + model_.name + " ended after " + countText(report.steps, "step"));
    if (report.overruns > 0) {
        log(trivial::warning, std::to_string(report.overruns) + " of " + countText(report.steps, "step") +
                                  " overran the base period, " + countText(report.skippedPeriods, "period") +
                                  (report.skippedPeriods == 1 ? " was" : " were") + " skipped");
    }
}

}  // namespace brevane
