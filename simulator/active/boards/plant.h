#pragma once

#include <chrono>

namespace kvsim {

/** A first-order lag, exact for an input that is constant between two calls. */
class FirstOrderLag {
 public:
    FirstOrderLag(double gain, double timeConstantSeconds, double initialValue)
        : gain_(gain), timeConstantSeconds_(timeConstantSeconds), value_(initialValue) {}

    /** Lets time pass, during which the input has this value. */
    void advance(double input, std::chrono::nanoseconds elapsed);
    [[nodiscard]] double value() const { return value_; }

 private:
    double gain_;
    double timeConstantSeconds_;
    double value_;
    // Most steps are as long as the one before.
    std::chrono::nanoseconds lastElapsed_{0};
    double lastDecay_ = 1;
};

}  // namespace kvsim
