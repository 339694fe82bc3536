#include <map>
#include <mutex>

#include <brevane/start_callbacks.h>

#include "start_callbacks_internal.h"

namespace {

struct Callback {
    void (*function)(void*);
    void* argument;
};

struct Registry {
    std::mutex mutex;
    /** Equal keys keep their order of insertion. */
    std::multimap<int, Callback> byPriority;
};

/** Made by the first static initialiser that asks, and never destroyed. */
Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

std::multimap<int, Callback> registeredCallbacks() {
    const std::lock_guard lock(registry().mutex);
    return registry().byPriority;
}

}  // namespace

void registerCB_C(void (*callback)(void*), void* argument, int priority) {
    if (callback == nullptr) {
        return;
    }
    const std::lock_guard lock(registry().mutex);
    registry().byPriority.insert({priority, {callback, argument}});
}

void brevane::runStartCallbacks() {
    for (const auto& [priority, callback] : registeredCallbacks()) {
        callback.function(callback.argument);
    }
}
