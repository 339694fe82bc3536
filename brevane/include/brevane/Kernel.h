#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>

#include <brevane/export.h>

namespace brevane {

/** What generated code hands to the kernel: the entry points of one model. Only step is required. */
struct Model {
    std::string name;
    std::chrono::nanoseconds basePeriod{std::chrono::milliseconds(1)};

    /** Runs once before the first step. */
    void (*initialize)() = nullptr;
    /** Runs once in each base period, on the base-rate thread. */
    void (*step)() = nullptr;
    /** Runs once after the last step, also when initialisation or a step reported an error. */
    void (*terminate)() = nullptr;
    /** Text of the model's error, null while there is none. Asked after initialisation and after each step.
     */
    const char* (*errorStatus)() = nullptr;
};

/** How one run went. Times are measured on CLOCK_MONOTONIC. */
struct RunReport {
    /** The model's name. */
    std::string model;
    std::uint64_t steps = 0;
    /** Steps that were still running when the next base period began. */
    std::uint64_t overruns = 0;
    /** Base periods without a step, because an earlier step was still running when they began. */
    std::uint64_t skippedPeriods = 0;
    /** How late steps began, measured from their places on the time grid. All but the maximum are within 4 %.
     */
    std::chrono::nanoseconds medianJitter{0};
    std::chrono::nanoseconds percentile99Jitter{0};
    std::chrono::nanoseconds maxJitter{0};
    std::chrono::nanoseconds maxStepTime{0};
    /** False where the rights for SCHED_FIFO were missing, or the run failed before its first step. */
    bool realTime = false;
    /** The run's first error, empty after a good run. */
    std::string error;
};

/** Writes a summary of a few lines. */
BREVANE_EXPORT std::ostream& operator<<(std::ostream& out, const RunReport& report);

/**
 * Runs one model: services, model initialisation, start callbacks, the base-rate loop, and everything back
 * again.
 *
 * The base rate runs on the thread that calls run(), at SCHED_FIFO and with the process's memory locked where
 * the rights allow it; where they don't, the kernel says so once and runs on. Priority and locks end with the
 * loop.
 *
 * Step n is due n base periods after the first. A step that is still running when further periods begin makes
 * these periods pass without a step: the grid stays where it is and steps never run in a burst. The first
 * such overrun is logged, then a summary at the end.
 */
class BREVANE_EXPORT Kernel {
 public:
    /**
     * SCHED_FIFO priority of the base-rate loop: above the interrupt threads of Linux (50) and the driver
     * threads of models (from 1), below the kernel's own watchdogs (99).
     */
    static constexpr int kBaseRatePriority = 80;

    explicit Kernel(Model model);

    /** Ends the run by itself after this much time; zero, the default, runs until stop() or a signal. */
    void setStopTime(std::chrono::nanoseconds stopTime);

    /**
     * Runs the model to its end and terminates it. A process runs one model at a time, and an instance runs
     * once; anything else is reported as an error, and nothing runs.
     *
     * SIGINT and SIGTERM end the run as stop() does, and SIGPIPE does nothing, so that a log reader that goes
     * away doesn't end the model; the former handlers are put back afterwards.
     *
     * An error (the model's error status, or a std::exception from the model, a service or a start callback)
     * ends the run, is logged and reported; the model is still terminated if its initialisation had begun.
     */
    RunReport run();

    /**
     * Ends the run after the current step, at the latest when the next one is due. May be called from any
     * thread, from signal handlers and before run(), which then takes no step.
     */
    void stop() noexcept;

 private:
    void runModel(RunReport& report);
    void runBaseRate(RunReport& report);

    Model model_;
    std::chrono::nanoseconds stopTime_{0};
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> used_{false};
};

/**
 * The main function of a model's executable: understands --stop-time SECONDS and --help, runs the model and
 * prints its report to standard output.
 *
 * @return the exit status: 0 after a good run, 1 after a failed one, 2 when the command line is wrong
 */
BREVANE_EXPORT int runMain(int argc, char** argv, const Model& model);

}  // namespace brevane
