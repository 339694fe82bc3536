#include <cstdlib>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/lifecycle.h>

#include "os/cancellation.h"

namespace {

struct ExitHandlerEntry {
    ExitHandlerEntry* next;
    void (*handler)(void*);
    void* argument;
};

ExitHandlerEntry* kv_exitHandler_list = nullptr;
bool registeredAtExit = false;

}  // namespace

void kv_add_exit_handler(void (*handler)(void*), void* argument) {
    const kv::os::CancellationHold hold;
    auto* entry = static_cast<ExitHandlerEntry*>(std::malloc(sizeof(ExitHandlerEntry)));
    if (entry == nullptr) {
        std::abort();  // without its handler the process must not go on
    }
    *entry = {.next = nullptr, .handler = handler, .argument = argument};
    kv_printf(kv_debug, "Registering Kelvaro exit handler\n");
    if (!std::exchange(registeredAtExit, true)) {
        std::atexit(kv_exit_handler);
    }
    ExitHandlerEntry** end = &kv_exitHandler_list;
    while (*end != nullptr) {
        end = &(*end)->next;
    }
    *end = entry;
}

void kv_exit_handler(void) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_debug, "Running Kelvaro exit handlers\n");
    // The list stays sound while a handler runs: it may add another, or run the list itself.
    while (ExitHandlerEntry* entry = kv_exitHandler_list) {
        kv_exitHandler_list = entry->next;
        entry->handler(entry->argument);
        std::free(entry);
    }
}
