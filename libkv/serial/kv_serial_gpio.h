#pragma once

#include <string>
#include <vector>

#include <gpiod.hpp>

namespace kv::serial {

/**
 * Lines of one GPIO chip that are driven together. All use of libgpiod is behind this class. Its functions
 * throw nothing and return 0 or an error number.
 */
class GpioLines {
 public:
    /** Opens the chip that has a line of this name, the first one of all chips, and takes the line. */
    int findAndTake(const char* line, int value) noexcept;

    /** Opens a chip by its name, such as gpiochip0. */
    int open(const std::string& chip) noexcept;

    /** Takes a line of the opened chip. */
    int take(unsigned offset, int value) noexcept;

    /**
     * Makes the lines outputs with their values, all in one request, and releases them: no line shows another
     * value in between.
     */
    int drive() noexcept;

    /** @return the name of the opened chip */
    [[nodiscard]] std::string chip() const { return chip_.name(); }

 private:
    void add(const gpiod::line& line, int value);

    gpiod::chip chip_;
    gpiod::line_bulk lines_;
    std::vector<int> values_;
};

}  // namespace kv::serial
