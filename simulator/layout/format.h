#pragma once

#include <string>

namespace kvsim {

/** As printf, into a string. */
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kvsim
