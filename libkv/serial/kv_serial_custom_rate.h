#pragma once

#include <cstdint>

namespace kv::serial {

/** The flag words of a line configuration, with the kernel's bits. */
struct LineFlags {
    uint32_t input;
    uint32_t output;
    uint32_t control;
    uint32_t local;
};

/**
 * Sets a line up at a rate that has no speed code, through the kernel's termios2. Apart from the other
 * functions because its header and <termios.h> cannot be used together.
 *
 * @return result of the TCSETS2 request, 0 or -1
 */
int setCustomRate(int fd, const LineFlags& flags, uint32_t bitsPerSecond);

}  // namespace kv::serial
