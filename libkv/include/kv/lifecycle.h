/**
 * @file
 * The life of a model: whether it runs for the first time; hooks before it, at its start and at its exit.
 *
 * Nothing is locked: these functions belong to the model's initialisation, which runs on one thread. Nothing
 * here blocks longer than the small files it reads and writes. Where memory is exhausted, the run
 * counts as a first one, the model is not tagged, and a start callback is not called.
 */
#ifndef KV_LIFECYCLE_H
#define KV_LIFECYCLE_H

#include <kv/export.h>

KV_BEGIN_DECLS

/**
 * @name First run of a model
 *
 * A model is the executable APP/bin/NAME; the first line of APP/misc/UUID, up to 199 characters, identifies
 * it. At exit that line is copied to /tmp/kelvaro/model_uuid. A start that finds its own line there is a
 * model run: the same model has run since the machine started. Every other start is a model load, also when
 * either file cannot be read, and frees persistent memory. The first check holds for the process. A tag that
 * is a link, no regular file, or, as its folder, of another user than root and the effective one is not used.
 * @{
 */

/**
 * Decides between model load and model run unless that is decided, frees persistent memory on a load that it
 * finds, and registers kv_tagModelAtExit() with atexit(). Call it once, before persistent memory is used; a
 * further call only registers again, which is harmless.
 */
KV_EXPORT void kv_checkModelInit(void);

/** Calls kv_checkModelInit(). */
KV_EXPORT void kv_initModelRun(void);

/** @return 1 for a model load; 0 for a model run, and while neither is decided */
KV_EXPORT int kv_isModelInit(void);

/** Another name of kv_isModelInit(). */
KV_EXPORT int kv_isFirstModelLoad(void);

/** Makes it a model load; persistent memory is left alone. */
KV_EXPORT void kv_setModelInit(void);

/** Makes a model load a model run. Changes nothing while neither is decided. */
KV_EXPORT void kv_clearModelInit(void);

/**
 * Copies the model's identity to /tmp/kelvaro/model_uuid, unless it is there already. A process that has read
 * its executable's path does nothing on further calls, whatever the first came to; one that could not read
 * it, or not open the tag, tries again.
 *
 * @return 0 when the identity is there now, when there is nothing left to do, and when the identity is empty
 * or cannot be read, which leaves an empty tag; 1 with a log record when a file or the executable's path
 *         stands in the way
 */
KV_EXPORT int kv_tagModelRun(void);

/** Calls kv_tagModelRun(); for atexit(). */
KV_EXPORT void kv_tagModelAtExit(void);

/** @} */

/**
 * @name Early initialisation
 *
 * One function of the model that runs when the kernel initialises its services, which is before the model's
 * own initialisation, on the thread that runs the model.
 * @{
 */

/** Registers the function. A later call replaces it; null takes it back. */
KV_EXPORT void kv_register_early_init_function(
    void (*early_init_func)(void));  // NOLINT(modernize-redundant-void-arg): C takes () for any arguments

/**
 * @return 1 from the time the library is loaded until the function has run, 0 afterwards; where no function
 *         is registered it stays 1
 */
KV_EXPORT int kv_is_early_init(void);

/** Keeps a pointer for the function, which the library does not look at. */
KV_EXPORT void kv_early_init_set_blkInfo2(void* blkInfo2);

/** @return the pointer that was kept last, null before */
KV_EXPORT void* kv_early_init_get_blkInfo2(void);

/** @} */

/**
 * @name Start and exit
 * @{
 */

/**
 * Registers a callback that the kernel calls at each start of the model, before the first step. Callbacks run
 * in ascending order of priority, those of equal priority in order of registration. @p argument stays the
 * caller's and must be there as long as the model may start.
 */
KV_EXPORT void kv_add_start_callback(void (*callback)(void*), void* argument, int priority);

/**
 * Registers a handler that runs when the process exits. Handlers run in order of registration, unlike those
 * of atexit(), among which they take the place of the first; one that is added by a handler runs last. Ends
 * the process (SIGABRT) when memory is exhausted. @p argument stays the caller's.
 */
KV_EXPORT void kv_add_exit_handler(void (*handler)(void*), void* argument);

/** Runs the exit handlers, each of them once; for atexit(). */
KV_EXPORT void kv_exit_handler(void);

/** @} */

KV_END_DECLS

#endif
