#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "os/cancellation.h"
#include "serial/kv_serial_gpio.h"
#include "serial/kv_serial_internal.h"
#include "serial/kv_serial_tables.h"

namespace {

using kv::serial::gpioChipName;
using kv::serial::GpioLines;
using kv::serial::isAvailable;
using kv::serial::TransceiverLines;

bool isInitialized() {
    if (gpioChipName().empty()) {
        kv_printf(kv_error, "Serial device not initialized yet\n");
        return false;
    }
    return true;
}

/** Takes lines of the onboard ports' chip with their values; logs where that is not possible. */
bool take(GpioLines& lines, int port, std::initializer_list<std::pair<unsigned, int>> settings) {
    int error = lines.open(gpioChipName());
    for (const auto& [offset, value] : settings) {
        error = error == 0 ? lines.take(offset, value) : error;
    }
    return isAvailable(port, gpioChipName(), error);
}

const TransceiverLines* offsetsOf(int port) {
    const TransceiverLines* const offsets = kv::serial::transceiverLines(port);
    if (offsets == nullptr) {
        kv_printf(kv_error, "Port number %d is not valid\n", port);
    }
    return offsets;
}

}  // namespace

bool kv::serial::isAvailable(int port, const std::string& chip, int error) {
    if (error != 0) {
        kv_printf(kv_error, "[port %d] GPIO lines of %s not available: %s\n", port, chip.c_str(),
                  std::strerror(error));
    }
    return error == 0;
}

int kv_serial_device_set_mode(int port, int mode) {
    const kv::os::CancellationHold hold;
    const TransceiverLines* const offsets = offsetsOf(port);
    if (offsets == nullptr) {
        return -1;
    }
    const kv::serial::ModeValues* const values = kv::serial::modeValues(mode);
    if (values == nullptr) {
        kv_printf(kv_error, "Mode number %d is not valid\n", mode);
        return -1;
    }
    if (!isInitialized()) {
        return -1;
    }
    GpioLines lines;
    if (!take(lines, port, {{offsets->rs485, values->rs485}, {offsets->halfDuplex, values->halfDuplex}})) {
        return -1;
    }
    kv_printf(kv_debug, "RS485 line: %d\n", static_cast<int>(offsets->rs485));
    kv_printf(kv_debug, "Half-duplex line: %d\n", static_cast<int>(offsets->halfDuplex));
    return isAvailable(port, gpioChipName(), lines.drive()) ? 0 : -1;
}

int kv_serial_device_set_termination(int port, int value) {
    const kv::os::CancellationHold hold;
    const TransceiverLines* const offsets = offsetsOf(port);
    if (offsets == nullptr) {
        return -1;
    }
    if (value > 1) {
        kv_printf(kv_error, "Termination value must be 0 or 1\n");
        return -1;
    }
    if (!isInitialized()) {
        return -1;
    }
    GpioLines lines;
    if (!take(lines, port, {{offsets->termination, value}})) {
        return -1;
    }
    kv_printf(kv_debug, "Termination line: %d\n", static_cast<int>(offsets->termination));
    return isAvailable(port, gpioChipName(), lines.drive()) ? 0 : -1;
}
