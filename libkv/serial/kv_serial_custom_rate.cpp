#include "serial/kv_serial_custom_rate.h"

#include <asm/termbits.h>
#include <sys/ioctl.h>

#include <kv/diagnostics.h>

namespace {

constexpr tcflag_t kSpeedBits = CBAUD | CIBAUD;
constexpr tcflag_t kOtherSpeeds = BOTHER | BOTHER << IBSHIFT;

}  // namespace

int kv::serial::setCustomRate(int fd, const LineFlags& flags, uint32_t bitsPerSecond) {
    termios2 line{};
    line.c_iflag = flags.input;
    line.c_oflag = flags.output;
    line.c_cflag = (flags.control & ~kSpeedBits) | kOtherSpeeds | CREAD;
    line.c_lflag = flags.local;
    line.c_ospeed = line.c_ispeed = bitsPerSecond;
    kv_printf(kv_debug, "ospeed: %d, ispeed: %d\n", static_cast<int>(line.c_ospeed),
              static_cast<int>(line.c_ispeed));

    const int result = ::ioctl(fd, TCSETS2, &line);
    (void)::ioctl(fd, TCGETS2, &line);  // for the log only; what was asked for is shown where it fails
    kv_printf(kv_debug, "ret: %d, ospeed: %d, ispeed: %d\n", result, static_cast<int>(line.c_ospeed),
              static_cast<int>(line.c_ispeed));
    return result;
}
