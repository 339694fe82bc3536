#include <brevane/start_callbacks.h>
#include <kv/lifecycle.h>

void kv_add_start_callback(void (*callback)(void*), void* argument, int priority) {
    registerCB_C(callback, argument, priority);
}
