#include "serial/kv_serial_gpio.h"

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>

namespace kv::serial {

namespace {

constexpr const char* kConsumer = "onboard_serial";

template <typename Step>
int errorOf(Step step) noexcept {
    try {
        step();
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    } catch (const std::exception&) {
        return ENODEV;  // the chip has fewer lines
    }
}

}  // namespace

int GpioLines::findAndTake(const char* line, int value) noexcept {
    return errorOf([&] {
        const gpiod::line found = gpiod::find_line(line);
        if (!found) {
            throw std::system_error(ENOENT, std::generic_category());
        }
        chip_ = found.get_chip();
        add(found, value);
    });
}

int GpioLines::open(const std::string& chip) noexcept {
    return errorOf([&] { chip_.open(chip, gpiod::chip::OPEN_BY_NAME); });
}

int GpioLines::take(unsigned offset, int value) noexcept {
    return errorOf([&] { add(chip_.get_line(offset), value); });
}

int GpioLines::drive() noexcept {
    return errorOf([&] {
        lines_.request({kConsumer, gpiod::line_request::DIRECTION_OUTPUT, {}}, values_);
        lines_.release();
    });
}

void GpioLines::add(const gpiod::line& line, int value) {
    lines_.append(line);
    values_.push_back(value);
}

}  // namespace kv::serial
