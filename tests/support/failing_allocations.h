#pragma once

namespace kv::test {

/**
 * How many calls of operator new in this process still succeed before all fail; negative for all. A program
 * that uses it is built with failing_allocations.cpp.
 */
extern int allocationsLeft;

/** Whether one has failed. */
extern bool allocationFailed;

}  // namespace kv::test
