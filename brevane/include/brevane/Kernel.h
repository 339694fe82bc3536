/**
 * @file
 * The kernel itself: what a model is, and the loop that runs it.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <variant>
#include <vector>

#include <brevane/export.h>

/** The embedded kernel: it runs control models where the platform's own kernel is not there. */
namespace brevane {

/** What called for a step: an interrupt of a board, say. */
struct Trigger {
    /** When it fired, on CLOCK_MONOTONIC. */
    std::chrono::steady_clock::time_point due;
    /** How many triggers fired after the one of the previous step and before this one, and had no step. */
    std::uint64_t missed = 0;
};

/** One thing that a model reports about its run, for the report that runMain() writes as JSON. */
struct Fact {
    /** What the fact is about, such as "machine"; facts of one section stand together. */
    std::string section;
    /** Its key in the section. A second fact of the same section and key replaces the first. */
    std::string key;
    /** The value; std::monostate stands for one that is not known. */
    std::variant<std::monostate, bool, std::int64_t, double, std::string> value;
};

/** What generated code hands to the kernel: the entry points of one model. Only step is required. */
struct Model {
    /** For log records and the report. */
    std::string name;
    /** The time between two steps, above zero. Of no effect on a model that has a trigger. */
    std::chrono::nanoseconds basePeriod{std::chrono::milliseconds(1)};

    /** Runs once before the first step. */
    void (*initialize)() = nullptr;
    /** Runs once in each base period, on the base-rate thread. */
    void (*step)() = nullptr;
    /** Runs once after the last step, also when initialisation or a step reported an error. */
    void (*terminate)() = nullptr;
    /**
     * Text of the model's error, null while there is none. Asked after initialisation, after each step and
     * after each wait for a trigger that ends without one.
     */
    const char* (*errorStatus)() = nullptr;

    /**
     * Optional: makes something else than the clock drive the base rate. Called on the base-rate thread, it
     * blocks until the next step is due and says what made it so; the step follows at once. The trigger's
     * missed count is not looked at before the first step, so a block that only has a running total may
     * start from any.
     *
     * It returns false, and no step follows, when no trigger has fired within @p timeout (1 ms to 100 ms) or
     * a signal came. The kernel then ends the run if a stop was requested, the stop time is over or the model
     * has an error status, and otherwise calls it again at once. A false that comes at once therefore has to
     * go with an error status: it would keep the base-rate thread spinning.
     *
     * The time-out is what lets a run end when the board is dead and when a signal comes just before the
     * wait, so a block must not wait in a system call that has none. A block of a descriptor waits in
     * poll(fd, POLLIN, timeout.count()), returns false on 0 and on EINTR, and reads the descriptor only when
     * poll finds it readable, which doesn't block then.
     */
    bool (*awaitTrigger)(std::chrono::milliseconds timeout, Trigger& trigger) = nullptr;
    /**
     * Optional: names the device that awaitTrigger waits for, such as "timer of board 1 (/dev/uio2)". Asked
     * on the base-rate thread once the model is initialised; the text is copied. Null: unnamed.
     */
    const char* (*triggerDevice)() = nullptr;
    /**
     * Optional: the time between two triggers, zero where it varies. A run that ends while a trigger with a
     * period is silent, for half a second and ten periods, has failed.
     */
    std::chrono::nanoseconds triggerPeriod{0};

    /**
     * Optional: writes what the model has recorded as comma-separated values. Asked by runMain() when the run
     * is over and the model terminated, also after a failed run; what is recorded has to outlive terminate.
     */
    void (*record)(std::ostream& out) = nullptr;
    /**
     * Optional: what the model reports about its run beside what the kernel knows. Asked once, after the
     * model has terminated, also after a failed run.
     */
    std::vector<Fact> (*facts)() = nullptr;
};

/** How many steps were how late. */
struct LatencyBucket {
    std::chrono::nanoseconds from; /**< the shortest latency that is counted here */
    std::chrono::nanoseconds upTo; /**< the longest one */
    /** How many steps were that late. */
    std::uint64_t steps;
};

/** What a run is judged to be. */
enum class Verdict {
    Good,    /**< steps were taken, and no more periods were skipped than is permitted */
    Overran, /**< more periods were skipped than is permitted */
    Failed,  /**< there was an error; a run without a single step is one */
};

/** How one run went. Times are measured on CLOCK_MONOTONIC. */
struct RunReport {
    /** The model's name. */
    std::string model;
    /** When the base rate began, in calendar time; the epoch where the run failed before. */
    std::chrono::system_clock::time_point begin;
    /**
     * How long the base rate ran: from the first step that was due or, with a trigger, the first wait for it,
     * until the loop ended.
     */
    std::chrono::nanoseconds duration{0};
    /** Whether a trigger drove the base rate, and not the clock. */
    bool triggered = false;
    /** The time between two steps; of no meaning where a trigger drives the base rate. */
    std::chrono::nanoseconds basePeriod{0};
    /** The device of the trigger, as the model names it; empty without a name. */
    std::string triggerDevice;
    /** Steps taken. */
    std::uint64_t steps = 0;
    /**
     * Steps that were still running when the next base period began; of a triggered model, those after which
     * triggers were missed.
     */
    std::uint64_t overruns = 0;
    /** Base periods without a step, because an earlier step was still running; or triggers that were missed.
     */
    std::uint64_t skippedPeriods = 0;
    /** The share of skipped periods that the verdict permits, in percent of all periods. */
    double maxSkippedPercent = 0;
    /**
     * How late steps began, measured from their places on the time grid or from the moment their triggers
     * fired. All but the maximum are within 4 %.
     */
    std::chrono::nanoseconds medianLatency{0};
    std::chrono::nanoseconds percentile99Latency{0};  /**< 99 % of the steps began no later */
    std::chrono::nanoseconds percentile999Latency{0}; /**< 99.9 % of the steps began no later */
    std::chrono::nanoseconds maxLatency{0};           /**< the latest step, exactly */
    /** The histogram of these, in ascending order, without the empty buckets. */
    std::vector<LatencyBucket> latency;
    /** The longest time that a step took. */
    std::chrono::nanoseconds maxStepTime{0};
    /** False where the rights for SCHED_FIFO were missing, or the run failed before its first step. */
    bool realTime = false;
    /** Whether the process's memory was locked while the base rate ran. */
    bool memoryLocked = false;
    /** The CPUs that the base-rate thread was allowed on when the base rate ended, in ascending order. */
    std::vector<int> cpus;
    /** The run's first error, empty where there was none. */
    std::string error;
    /** What the model reports about its run. */
    std::vector<Fact> facts;

    /** The share of periods that were skipped, in percent of all periods. */
    [[nodiscard]] double skippedPercent() const {
        const std::uint64_t periods = steps + skippedPeriods;
        return periods == 0 ? 0 : 100 * static_cast<double>(skippedPeriods) / static_cast<double>(periods);
    }

    /** The verdict on the run. */
    [[nodiscard]] Verdict verdict() const {
        if (!error.empty()) {
            return Verdict::Failed;
        }
        return skippedPercent() > maxSkippedPercent ? Verdict::Overran : Verdict::Good;
    }
};

/** Writes a summary of a few lines, the last of which is the verdict with its reason. */
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
 * such overrun is logged, then a summary at the end. A model with a trigger steps whenever that fires, and
 * the triggers it misses are the periods without a step; everything else is the same.
 */
class BREVANE_EXPORT Kernel {
 public:
    /**
     * SCHED_FIFO priority of the base-rate loop: above the interrupt threads of Linux (50) and the driver
     * threads of models (from 1), below the kernel's own watchdogs (99).
     */
    static constexpr int kBaseRatePriority = 80;
    /** How long a trigger may be silent where setTriggerTimeout() sets nothing else. */
    static constexpr std::chrono::nanoseconds kTriggerTimeout = std::chrono::seconds(5);

    /** Keeps a copy of the model; nothing of it is called before run(). */
    explicit Kernel(Model model);

    /**
     * Ends the run by itself after this much time, measured on CLOCK_MONOTONIC from the first step that is
     * due or, with a trigger, the first wait for it; zero, the default, runs until stop() or a signal.
     */
    void setStopTime(std::chrono::nanoseconds stopTime);

    /**
     * Permits this share of skipped periods, in percent of all periods, from 0 (the default) to 100: a run
     * that skips no more is good.
     */
    void setMaxSkipped(double percent);

    /**
     * Fails the run when no trigger comes for this long, measured from the first wait and from each step; the
     * error names the trigger's device. Zero waits without limit.
     */
    void setTriggerTimeout(std::chrono::nanoseconds timeout);

    /**
     * Runs the model to its end, which is how long it blocks, and terminates it. A process runs one model at
     * a time, and an instance runs once; anything else is reported as an error, and nothing runs.
     *
     * SIGINT and SIGTERM end the run as stop() does, and SIGPIPE does nothing, so that a log reader that goes
     * away doesn't end the model; the former handlers are put back afterwards.
     *
     * An error (the model's error status, or a std::exception from the model, a service or a start callback)
     * ends the run, is logged and reported; the model is still terminated if its initialisation had begun. A
     * run that ends before its first step, for whatever reason, has failed too.
     */
    RunReport run();

    /**
     * Ends the run after the current step, at the latest when the next one is due; a wait for a trigger ends
     * after 100 ms at the latest. May be called from any thread, from signal handlers and before run(), which
     * then takes no step.
     */
    void stop() noexcept;

 private:
    void runModel(RunReport& report);
    void runBaseRate(RunReport& report);

    Model model_;
    std::chrono::nanoseconds stopTime_{0};
    std::chrono::nanoseconds triggerTimeout_ = kTriggerTimeout;
    double maxSkippedPercent_ = 0;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> used_{false};
};

/** Exit statuses of runMain(). */
enum ExitStatus : int {
    kExitGood = 0,    /**< the verdict is good */
    kExitFailed = 1,  /**< the run failed, or a file or standard output could not be written */
    kExitUsage = 2,   /**< the command line is wrong; nothing ran */
    kExitOverran = 3, /**< more periods were skipped than is permitted */
};

/**
 * The main function of a model's executable: runs the model and prints its report to standard output. A run
 * that SIGINT or SIGTERM ends is judged as any other.
 *
 * | option | effect |
 * |---|---|
 * | --stop-time SECONDS | as Kernel::setStopTime() |
 * | --max-skipped PERCENT | as Kernel::setMaxSkipped() |
 * | --trigger-timeout SECONDS | as Kernel::setTriggerTimeout(); for models with a trigger |
 * | --latency FILE | writes the histogram of the latencies, comma-separated below a line of names |
 * | --record FILE | writes what the model has recorded; for models that record |
 * | --report FILE | writes the report as JSON; docs/report.md lists its keys |
 * | --help | prints all options and the exit statuses |
 *
 * The files are opened before the model is touched, and written, over what they held, after the run, also a
 * failed one. Two options may not name one file. Standard error names a file that cannot be opened or
 * written, with the reason, behind the model's name. Where one cannot be opened nothing runs and the others
 * keep what they hold.
 *
 * @return one of ExitStatus
 */
BREVANE_EXPORT int runMain(int argc, char** argv, const Model& model);

}  // namespace brevane
