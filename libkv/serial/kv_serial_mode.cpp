#include <cstring>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "os/cancellation.h"
#include "serial/kv_serial_internal.h"
#include "serial/kv_serial_tables.h"

namespace {

using kv::serial::driveLines;
using kv::serial::gpioChipName;
using kv::serial::TransceiverLines;

bool isInitialized() {
    if (gpioChipName().empty()) {
        kv_printf(kv_error, "Serial device not initialized yet\n");
        return false;
    }
    return true;
}

const TransceiverLines* linesOf(int port) {
    const TransceiverLines* const lines = kv::serial::transceiverLines(port);
    if (lines == nullptr) {
        kv_printf(kv_error, "Port number %d is not valid\n", port);
    }
    return lines;
}

}  // namespace

int kv::serial::driveLines(int port, const std::string& chip, std::initializer_list<GpioValue> values) {
    const int error = driveGpioLines(chip, values);
    if (error != 0) {
        kv_printf(kv_error, "[port %d] GPIO lines of %s not available: %s\n", port, chip.c_str(),
                  std::strerror(error));
        return -1;
    }
    return 0;
}

int kv_serial_device_set_mode(int port, int mode) {
    const kv::os::CancellationHold hold;
    const TransceiverLines* const lines = linesOf(port);
    if (lines == nullptr) {
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
    kv_printf(kv_debug, "RS485 line: %d\n", static_cast<int>(lines->rs485));
    kv_printf(kv_debug, "Half-duplex line: %d\n", static_cast<int>(lines->halfDuplex));
    return driveLines(port, gpioChipName(),
                      {{lines->rs485, values->rs485}, {lines->halfDuplex, values->halfDuplex}});
}

int kv_serial_device_set_termination(int port, int value) {
    const kv::os::CancellationHold hold;
    const TransceiverLines* const lines = linesOf(port);
    if (lines == nullptr) {
        return -1;
    }
    if (value > 1) {
        kv_printf(kv_error, "Termination value must be 0 or 1\n");
        return -1;
    }
    if (!isInitialized()) {
        return -1;
    }
    kv_printf(kv_debug, "Termination line: %d\n", static_cast<int>(lines->termination));
    return driveLines(port, gpioChipName(), {{lines->termination, value}});
}
