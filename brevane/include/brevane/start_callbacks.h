/**
 * @file
 * Callbacks at the start of a model.
 */
#pragma once

#include <brevane/export.h>

extern "C" {

/**
 * Registers a callback that the kernel calls once each time a model starts, after its services have started
 * and before the first step, on the thread that runs the model.
 *
 * Callbacks run in ascending order of @p priority, those of equal priority in order of registration. May be
 * called from any thread; a callback that is registered while the callbacks run waits for the next start. A
 * null callback is ignored. @p argument stays the caller's and must be there as long as the model may start.
 */
BREVANE_EXPORT void registerCB_C(void (*callback)(void*), void* argument, int priority);
}
