#include "unit/registry/failing_allocations.h"

#include <cstddef>

namespace {

constexpr int kNever = -1;
int callsUntilFailure = kNever;
long live = 0;

bool failsNow() {
    return callsUntilFailure >= 0 && callsUntilFailure-- == 0;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void __real_free(void* memory);
void* __wrap_malloc(std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);
void __wrap_free(void* memory);

void* __wrap_malloc(std::size_t size) {
    void* made = failsNow() ? nullptr : __real_malloc(size);
    live += made != nullptr ? 1 : 0;
    return made;
}

void* __wrap_realloc(void* memory, std::size_t size) {
    void* made = failsNow() ? nullptr : __real_realloc(memory, size);
    live += memory == nullptr && made != nullptr ? 1 : 0;
    return made;
}

void __wrap_free(void* memory) {
    live -= memory != nullptr ? 1 : 0;
    __real_free(memory);
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

long liveAllocations() {
    return live;
}

}  // namespace kv::test
