#pragma once

#include <cstdlib>

#include <gtest/gtest.h>

/** Skips a test of what an emulator of the processor, as the test preset names it in KV_TEST_EMULATOR, does
 * not do. */
#define SKIP_IN_EMULATOR(reason)                                                       \
    if (const char* emulator = std::getenv("KV_TEST_EMULATOR"); emulator != nullptr) { \
        GTEST_SKIP() << emulator << " " << (reason);                                   \
    }                                                                                  \
    static_assert(true, "a semicolon follows")
