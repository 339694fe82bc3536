#include <fcntl.h>
#include <termios.h>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "os/cancellation.h"
#include "serial/kv_serial_custom_rate.h"
#include "serial/kv_serial_tables.h"

namespace {

using kv::serial::LineFlags;

/** For a rate that has a speed code, which brings the flag CBAUDEX with it. */
int setExtendedBaudrate(int port, int fd, const LineFlags& flags, speed_t baudrate) {
    termios line{};
    line.c_iflag = flags.input;
    line.c_oflag = flags.output;
    line.c_cflag = flags.control;
    line.c_lflag = flags.local;
    if (::cfsetispeed(&line, baudrate) != 0 || ::cfsetospeed(&line, baudrate) != 0) {
        kv_printf(kv_error, "[port %d] Failed to set baudrate %d\n", port, static_cast<int>(baudrate));
        return -1;
    }
    return ::tcsetattr(fd, TCSANOW, &line);
}

}  // namespace

int kv_serial_device_config(int port, speed_t baudrate, int data_bits, parity_bits parity, int stop_bits,
                            int cts_mode) {
    const kv::os::CancellationHold hold;
    const int fd = kv_serial_port_open(port, O_RDWR | O_NOCTTY);
    if (fd == -1) {
        return -1;
    }
    kv_printf(kv_debug, "[port %d] kv_serial_device_config : fd = %d\n", port, fd);
    kv_printf(kv_debug, "[port %d] baud %d, data %d, parity %d, stop %d, cts %d\n", port,
              static_cast<int>(baudrate), data_bits, static_cast<int>(parity), stop_bits, cts_mode);

    int result = -1;
    if (const auto flags = kv::serial::lineFlags(data_bits, parity, stop_bits, cts_mode); !flags) {
        kv_printf(kv_error, "Parity bit is out of bounds\n");
    } else if (kv::serial::isExtendedBaudrate(baudrate)) {
        result = setExtendedBaudrate(port, fd, *flags, baudrate);
    } else {
        result = kv::serial::setCustomRate(fd, *flags, baudrate);
    }
    (void)kv_serial_port_close(port);  // always 0
    return result;
}
