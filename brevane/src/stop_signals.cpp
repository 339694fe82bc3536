#include "stop_signals.h"

namespace brevane {

namespace {

std::atomic<std::atomic<bool>*> stopFlag{nullptr};
static_assert(decltype(stopFlag)::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "signal handlers use these");

/** A handler rather than SIG_IGN for SIGPIPE too: programs that the model starts get the default back. */
void handle(int signal) {
    if (signal == SIGPIPE) {
        return;
    }
    if (std::atomic<bool>* flag = stopFlag.load()) {
        flag->store(true);
    }
}

}  // namespace

StopSignals::StopSignals(std::atomic<bool>& stopRequested) {
    stopFlag = &stopRequested;
    struct sigaction action {};
    action.sa_handler = handle;
    // Other threads' system calls go on; clock_nanosleep and poll return all the same.
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaction(kSignals[i], &action, &former_[i]);
    }
}

StopSignals::~StopSignals() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaction(kSignals[i], &former_[i], nullptr);
    }
    stopFlag = nullptr;
}

}  // namespace brevane
