#pragma once

#include <chrono>
#include <string>

namespace brevane {

/** A duration in the unit that suits it, such as "12.3 us". */
std::string durationText(std::chrono::nanoseconds duration);

}  // namespace brevane
