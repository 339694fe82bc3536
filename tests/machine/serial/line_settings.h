#pragma once

#include <cstdint>

namespace kv::test {

/** A line's configuration as the kernel keeps it, rates in bits per second. */
struct LineSettings {
    uint32_t input;
    uint32_t output;
    uint32_t control;
    uint32_t local;
    unsigned controlCharacters; /**< how many are not 0 */
    uint32_t inputRate;
    uint32_t outputRate;
};

/** Reads it through termios2. */
LineSettings lineSettings(const char* node);

}  // namespace kv::test
