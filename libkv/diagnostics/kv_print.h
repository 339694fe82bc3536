#pragma once

#include <kv/diagnostics.h>

namespace kv {

/** kv_printf() without the cancellation point at its end, for calls that do not hold cancellation back. */
void print(Severity severity, const char* format, ...) KV_PRINTF_LIKE(2, 3);

}  // namespace kv
