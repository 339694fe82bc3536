#include "support/failing_allocations.h"

#include <cerrno>
#include <cstdlib>
#include <new>

namespace kv::test {

int allocationsLeft = -1;
bool allocationFailed = false;

}  // namespace kv::test

[[gnu::noinline]] void* operator new(std::size_t size) {
    int& left = kv::test::allocationsLeft;
    if (left == 0) {
        kv::test::allocationFailed = true;
        errno = ENOMEM;
        throw std::bad_alloc();
    }
    left -= left > 0 ? 1 : 0;
    if (void* const memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
