#pragma once

namespace kvsim {

/**
 * The GPIO chips of a machine, a folder for each: `label`, `history`, and a folder `lines/N` for each line
 * with `name`, `direction` (input, output), `value` (0 low, 1 high) and `consumer` (who holds the line; empty
 * once it is released, kept where the holder was killed). /dev/gpiochipN leads to the chip's folder.
 */
inline constexpr const char* kGpioFolder = "/run/kvsim/gpio";

}  // namespace kvsim
