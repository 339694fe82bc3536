#pragma once

#include <array>
#include <atomic>
#include <csignal>

namespace brevane {

/**
 * While it lives, SIGINT and SIGTERM set a flag and SIGPIPE does nothing; then the former handlers return.
 * One object at a time in a process.
 */
class StopSignals {
 public:
    explicit StopSignals(std::atomic<bool>& stopRequested);
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

 private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGPIPE};

    std::array<struct sigaction, kSignals.size()> former_{};
};

}  // namespace brevane
