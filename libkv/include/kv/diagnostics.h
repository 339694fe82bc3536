/**
 * @file
 * Diagnostics: log records, the log file, the shared failure text and the error object of a block.
 *
 * kv_printf(), kv_log() and kv::utils::formatString() may be called from any thread, real-time threads
 * included, but are not meant for the per-step path of a model: they allocate, and block on the kernel's log
 * sinks or on the file. A KvError belongs to one block and is not locked; its functions block on nothing but
 * the memory allocator. pKvErrorStr is one unlocked buffer for the whole process.
 */
#ifndef KV_DIAGNOSTICS_H
#define KV_DIAGNOSTICS_H

#include <stdint.h>

#include <kv/export.h>

#ifdef __cplusplus
#include <string>
#endif

KV_BEGIN_DECLS

/** Severity of a diagnostic. The values are those of Boost.Log's trivial levels and never change. */
typedef enum Severity { kv_trace = 0, kv_debug = 1, kv_info = 2, kv_warning = 3, kv_error = 4 } Severity;

/** Size of pKvErrorStr in bytes, the terminator included. */
#define KV_ERROR_STR_SIZE 500

/**
 * Reason of the most recent failure of a library call in this process.
 *
 * Always terminated. Overwritten by the next failure of any writer, never cleared by the library, and not
 * locked: read it straight after the call that failed.
 */
extern KV_EXPORT char pKvErrorStr[KV_ERROR_STR_SIZE];

/**
 * Writes diagnostics to the log of the real-time kernel, one record for each complete line.
 *
 * A line becomes the record "KV: " + line on channel 0. Text after the last newline is dropped, so a message
 * without a newline writes nothing; of a message of 511 characters or more the first 511 count, and the last
 * of them becomes the newline. A message that cannot be formatted is dropped, and so is a line where a sink
 * throws. errno is left as it was. A cancellation point: a thread that is cancelled ends when its lines are
 * written.
 *
 * @param severity  a Severity; any other value writes a fixed error record in place of each line
 * @param msg       printf format; ends in a newline
 */
KV_EXPORT void kv_printf(Severity severity, const char* msg, ...) KV_PRINTF_LIKE(2, 3);

/**
 * Appends one time-stamped line to /home/brvn/logs/kvlog.log, apart from the kernel's log:
 *
 *     2024-03-05 14:07:09.000042 [42] [info   ] message
 *
 * with local time, padded severity and two constants. Each call opens and closes the file. The line is lost
 * where the file cannot be appended to (an empty one may be made, or the file emptied), where file or folder
 * is a link, and where the file belongs to another user than root and the effective one.
 *
 * @param severity  kv_trace to kv_error; not range-checked
 * @param msg       the text of the line, without a newline
 */
KV_EXPORT void kv_log(Severity severity, const char* msg);

/** Bytes of each text of a KvError, the terminator included. */
#define KV_ERROR_MSG_SIZE 200

/** Error text of one block: a preamble that names the block, and a message. */
typedef struct KvError {
    char errorMsg[KV_ERROR_MSG_SIZE];  /**< the message */
    char outputMsg[KV_ERROR_MSG_SIZE]; /**< the preamble; after kvError_getMsg() preamble and message */
    int32_t writeIndex;                /**< length of the preamble in outputMsg */
} KvError;

/**
 * Creates an error object with empty texts.
 *
 * @return the object, never null; the caller owns it and frees it with kvError_delete(). Throws
 * std::bad_alloc when memory is exhausted.
 */
KV_EXPORT KvError* kvError_new(void);

/** Frees an error object. A null pointer is ignored. */
KV_EXPORT void kvError_delete(KvError* error);

/**
 * Sets the preamble "In MODULE, BLOCK block, ID N: ".
 *
 * A preamble of 200 characters or more ends the process (SIGABRT).
 */
KV_EXPORT void kvError_setPreamble(KvError* error, const char* moduleName, const char* blockName,
                                   int moduleId);

/** Formats the message. A message of 200 characters or more ends the process (SIGABRT). */
KV_EXPORT void kvError_setMsg(KvError* error, const char* format, ...) KV_PRINTF_LIKE(2, 3);

/**
 * Takes the message from a text that carries a prefix of its own: what follows the first colon and the blanks
 * behind it, or the whole text when it has no colon. 200 characters or more end the process (SIGABRT).
 */
KV_EXPORT void kvError_extractMsg(KvError* error, const char* msg);

/**
 * Joins preamble and message.
 *
 * @return the joined text, owned by the object and valid until the object changes. The two together must fit
 * in 199 characters; that is not checked.
 */
KV_EXPORT const char* kvError_getMsg(KvError* error);

KV_END_DECLS

#ifdef __cplusplus
namespace kv::utils {

/**
 * Formats printf-style into a string of any length, empty where that cannot be done. Throws std::bad_alloc
 * when memory is exhausted.
 */
KV_EXPORT std::string formatString(const char* format, ...) KV_PRINTF_LIKE(1, 2);

}  // namespace kv::utils
#endif

#endif
