#include "active/boards/plant.h"

#include <cmath>

namespace kvsim {

void FirstOrderLag::advance(double input, std::chrono::nanoseconds elapsed) {
    if (elapsed != lastElapsed_) {
        lastElapsed_ = elapsed;
        lastDecay_ = std::exp(-std::chrono::duration<double>(elapsed).count() / timeConstantSeconds_);
    }
    const double target = gain_ * input;
    value_ = target + (value_ - target) * lastDecay_;
}

}  // namespace kvsim
