#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kv::serial {

/** Cuts a text into its runs of decimal digits and of other characters, in order. */
std::vector<std::string> splitAlphaNum(std::string_view text);

/**
 * Whether a device name sorts before another where runs of digits count as numbers. Throws std::out_of_range
 * for a number above INT_MAX.
 */
bool doNaturalCompare(std::string_view a, std::string_view b);

}  // namespace kv::serial
