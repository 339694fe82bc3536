#pragma once

#include <initializer_list>
#include <optional>
#include <string>

namespace kv::serial {

// All use of libgpiod is behind these functions. They throw nothing and leave nothing open.

struct GpioLine {
    std::string chip; /**< name of the chip, such as gpiochip0 */
    unsigned offset;  /**< number of the line on it */
};

/** @return the first line of that name on any chip; empty where there is none, or chips cannot be read */
std::optional<GpioLine> findGpioLine(const char* name) noexcept;

struct GpioValue {
    unsigned offset;
    int value;
};

/**
 * Makes lines of a chip outputs with the given values, all at once, and releases them: no line shows another
 * value in between.
 *
 * @return 0 or an error number
 */
int driveGpioLines(const std::string& chip, std::initializer_list<GpioValue> values) noexcept;

}  // namespace kv::serial
