#include <fcntl.h>
#include <termios.h>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "diagnostics/kv_print.h"
#include "os/cancellation.h"
#include "serial/kv_serial_internal.h"

namespace {

enum FlushBehaviour { kDrain = 0, kDrop = 1, kDrainAndClose = 2, kDropAndClose = 3 };

}  // namespace

int kv_serial_device_open(int port) {
    const kv::os::CancellationHold hold;
    const int fd = kv_serial_port_open(port, O_RDWR | O_NONBLOCK);
    if (fd != -1) {
        kv_printf(kv_debug, "[port %d] kv_serial_device_open : fd = %d\n", port, fd);
    }
    return fd;
}

int kv_serial_device_close(int port) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_debug, "[port %d] kv_serial_device_close : fd = %d\n", port, kv::serial::descriptorOf(port));
    return kv_serial_port_close(port);
}

int kv_serial_device_flush(int port, int behaviour) {
    // Not held back as a whole: a drain lasts as long as the far end makes it.
    const int fd = kv_serial_port_open(port, O_RDWR | O_NOCTTY);
    if (fd == -1) {
        return -1;
    }
    int result = -1;
    switch (behaviour) {
        case kDrain:
        case kDrainAndClose:
            result = ::tcdrain(fd);
            break;
        case kDrop:
        case kDropAndClose:
            result = ::tcflush(fd, TCIOFLUSH);
            break;
        default:
            kv::print(kv_error, "buffer_fd_behavior %d not supported\n", behaviour);
            return -1;
    }
    if (behaviour == kDrainAndClose || behaviour == kDropAndClose) {
        (void)kv_serial_port_close(port);  // always 0
    }
    kv::print(kv_debug, "[port %d] kv_serial_device_flush : fd = %d\n", port, kv::serial::descriptorOf(port));
    return result;
}
