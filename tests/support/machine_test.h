#pragma once

#include <kvsim/machine.h>

#include <gtest/gtest.h>

/** Puts the test on a machine, or skips it with the reason where this user may not have one. */
#define ENTER_MACHINE(machine)                               \
    try {                                                    \
        (machine).enter();                                   \
    } catch (const kvsim::MachineUnavailable& unavailable) { \
        GTEST_SKIP() << unavailable.what();                  \
    }                                                        \
    static_assert(true, "a semicolon follows")
