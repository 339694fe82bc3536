#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kv/diagnostics.h>

#include "diagnostics/kv_error_text.h"

char pKvErrorStr[KV_ERROR_STR_SIZE];

namespace kv {

void setErrorText(const char* format, ...) {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(pKvErrorStr, sizeof pKvErrorStr, format, arguments);
    va_end(arguments);
    errno = savedErrno;
}

}  // namespace kv

namespace {

using MessageBuffer = char[KV_ERROR_MSG_SIZE];

/** A text that does not fit its buffer would lose its reason silently, so it ends the process, in every
 * build. */
int formatOrAbort(MessageBuffer& buffer, const char* format, va_list arguments) {
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    if (length < 0) {
        buffer[0] = '\0';  // a text that cannot be encoded is not too long
        return 0;
    }
    if (static_cast<std::size_t>(length) >= sizeof buffer) {
        std::abort();
    }
    return length;
}

int formatOrAbort(MessageBuffer& buffer, const char* format, ...) KV_PRINTF_LIKE(2, 3);

int formatOrAbort(MessageBuffer& buffer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = formatOrAbort(buffer, format, arguments);
    va_end(arguments);
    return length;
}

}  // namespace

KvError* kvError_new(void) {
    return new KvError{};
}

void kvError_delete(KvError* error) {
    delete error;
}

void kvError_setPreamble(KvError* error, const char* moduleName, const char* blockName, int moduleId) {
    error->writeIndex =
        formatOrAbort(error->outputMsg, "In %s, %s block, ID %d: ", moduleName, blockName, moduleId);
}

void kvError_setMsg(KvError* error, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    formatOrAbort(error->errorMsg, format, arguments);
    va_end(arguments);
}

void kvError_extractMsg(KvError* error, const char* msg) {
    if (const char* colon = std::strchr(msg, ':')) {
        msg = colon + 1;
        msg += std::strspn(msg, " ");
    }
    formatOrAbort(error->errorMsg, "%s", msg);
}

const char* kvError_getMsg(KvError* error) {
    std::strcpy(error->outputMsg + error->writeIndex, error->errorMsg);
    return error->outputMsg;
}
