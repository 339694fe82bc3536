#include <new>

#include <brevane/start_callbacks.h>
#include <kv/lifecycle.h>

void kv_add_start_callback(void (*callback)(void*), void* argument, int priority) try {
    registerCB_C(callback, argument, priority);
} catch (const std::bad_alloc&) {
    // A callback that there is no memory for is not called.
}
