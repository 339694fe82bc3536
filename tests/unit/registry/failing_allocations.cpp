#include "unit/registry/failing_allocations.h"

#include <cstddef>

namespace {

constexpr int kNever = -1;
int callsUntilFailure = kNever;

bool failsNow() {
    return callsUntilFailure >= 0 && callsUntilFailure-- == 0;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);

void* __wrap_malloc(std::size_t size) {
    return failsNow() ? nullptr : __real_malloc(size);
}
void* __wrap_realloc(void* memory, std::size_t size) {
    return failsNow() ? nullptr : __real_realloc(memory, size);
}
}

namespace kv::test {

FailingAllocation::FailingAllocation(int n) {
    callsUntilFailure = n;
}

FailingAllocation::~FailingAllocation() {
    callsUntilFailure = kNever;
}

bool FailingAllocation::happened() {
    return callsUntilFailure == kNever;
}

}  // namespace kv::test
