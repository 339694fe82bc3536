#include "serial/kv_serial_gpio.h"

#include <cerrno>
#include <exception>
#include <system_error>
#include <vector>

#include <gpiod.hpp>

namespace kv::serial {

namespace {

constexpr const char* kConsumer = "onboard_serial";

}  // namespace

std::optional<GpioLine> findGpioLine(const char* name) noexcept {
    try {
        const gpiod::line line = gpiod::find_line(name);
        return line ? std::optional(GpioLine{line.get_chip().name(), line.offset()}) : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

int driveGpioLines(const std::string& chip, std::initializer_list<GpioValue> values) noexcept {
    try {
        const gpiod::chip opened(chip, gpiod::chip::OPEN_BY_NAME);
        gpiod::line_bulk lines;
        std::vector<int> levels;
        for (const GpioValue& each : values) {
            lines.append(opened.get_line(each.offset));
            levels.push_back(each.value);
        }
        lines.request({kConsumer, gpiod::line_request::DIRECTION_OUTPUT, {}}, levels);
        lines.release();
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    } catch (const std::exception&) {
        return ENODEV;  // the chip has fewer lines
    }
}

}  // namespace kv::serial
