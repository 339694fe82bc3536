#pragma once

#include <kv/diagnostics.h>

namespace kv {

/** Formats the reason of a failure into pKvErrorStr, cut to its size and always terminated. Keeps errno. */
void setErrorText(const char* format, ...) KV_PRINTF_LIKE(1, 2);

}  // namespace kv
