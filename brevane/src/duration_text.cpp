#include "duration_text.h"

#include <iomanip>
#include <sstream>

namespace brevane {

std::string durationText(std::chrono::nanoseconds duration) {
    struct Unit {
        double nanoseconds;
        const char* name;
    };
    constexpr Unit kUnits[] = {{1e9, " s"}, {1e6, " ms"}, {1e3, " us"}};

    const auto nanoseconds = static_cast<double>(duration.count());
    for (const Unit& unit : kUnits) {
        if (nanoseconds >= unit.nanoseconds) {
            std::ostringstream text;
            text << std::setprecision(4) << nanoseconds / unit.nanoseconds << unit.name;
            return text.str();
        }
    }
    return std::to_string(duration.count()) + " ns";
}

}  // namespace brevane
