#pragma once

#include <cstdint>
#include <string>

namespace brevane {

/** A number and a noun in singular or plural, such as "1 period" or "3 periods". */
inline std::string countText(std::uint64_t count, const std::string& noun) {
    return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

}  // namespace brevane
