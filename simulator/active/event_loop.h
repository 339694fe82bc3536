#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

#include "os/unique_fd.h"

namespace kvsim {

/** Calls handlers, one after the other on one thread, when their descriptors become readable. */
class EventLoop {
 public:
    /** A handler may watch and forget descriptors, its own included. */
    void watch(int fd, std::function<void()> onReadable) { handlers_[fd] = std::move(onReadable); }
    void forget(int fd) { handlers_.erase(fd); }

    /** Runs until stop(). Throws std::system_error where waiting is not possible. */
    void run();
    void stop() { stopped_ = true; }

 private:
    std::map<int, std::function<void()>> handlers_;
    bool stopped_ = false;
};

/** A periodic timer on CLOCK_MONOTONIC. */
class Timer {
 public:
    using Clock = std::chrono::steady_clock;

    /**
     * Called once for each wake-up.
     *
     * @param due      when the last period ended, on the timer's grid
     * @param periods  how many have ended since the last call, 1 unless the process was held up
     */
    using Handler = std::function<void(Clock::time_point due, std::uint64_t periods)>;

    Timer(EventLoop& loop, Handler handler);
    ~Timer() { loop_.forget(fd_.get()); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /** Starts, or starts anew: the first period ends one period from now. */
    void start(std::chrono::nanoseconds period);
    void stop() { start(std::chrono::nanoseconds(0)); }
    [[nodiscard]] std::chrono::nanoseconds period() const { return period_; }

 private:
    void expire();

    EventLoop& loop_;
    Handler handler_;
    kv::os::UniqueFd fd_;
    std::chrono::nanoseconds period_{0};
    Clock::time_point due_;
};

}  // namespace kvsim
