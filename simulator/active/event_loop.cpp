#include "active/event_loop.h"

#include <cerrno>
#include <poll.h>
#include <sys/timerfd.h>
#include <system_error>
#include <vector>

namespace kvsim {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

timespec timespecOf(std::chrono::nanoseconds duration) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(duration);
    return {seconds.count(), (duration - seconds).count()};
}

}  // namespace

void EventLoop::run() {
    std::vector<pollfd> watched;
    while (!stopped_) {
        watched.clear();
        for (const auto& [fd, handler] : handlers_) {
            watched.push_back({.fd = fd, .events = POLLIN, .revents = 0});
        }
        if (::poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) {
            fail("poll");
        }
        for (const pollfd& each : watched) {
            const auto handler = each.revents == 0 ? handlers_.end() : handlers_.find(each.fd);
            if (handler != handlers_.end()) {
                const auto onReadable = handler->second;  // a copy: the handler may forget itself
                onReadable();
            }
        }
    }
}

Timer::Timer(EventLoop& loop, Handler handler)
    : loop_(loop),
      handler_(std::move(handler)),
      fd_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
    if (!fd_) {
        fail("timerfd_create");
    }
    loop_.watch(fd_.get(), [this] { expire(); });
}

void Timer::start(std::chrono::nanoseconds period) {
    period_ = period;
    due_ = Clock::now();
    itimerspec times{};
    if (period > std::chrono::nanoseconds::zero()) {
        times.it_value = timespecOf((due_ + period).time_since_epoch());
        times.it_interval = timespecOf(period);
    }
    if (::timerfd_settime(fd_.get(), TFD_TIMER_ABSTIME, &times, nullptr) != 0) {
        fail("timerfd_settime");
    }
}

void Timer::expire() {
    std::uint64_t periods = 0;
    if (::read(fd_.get(), &periods, sizeof periods) != sizeof periods) {
        return;  // started anew meanwhile
    }
    due_ += period_ * static_cast<std::int64_t>(periods);
    handler_(due_, periods);
}

}  // namespace kvsim
