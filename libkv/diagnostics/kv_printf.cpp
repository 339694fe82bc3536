#include <array>
#include <cstdarg>
#include <cstdio>
#include <cxxabi.h>
#include <optional>
#include <pthread.h>
#include <string_view>

#include <boost/log/core.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/trivial.hpp>

#include <brevane/Logger.h>
#include <kv/diagnostics.h>

#include "diagnostics/kv_print.h"
#include "os/cancellation.h"
#include "os/kept_errno.h"

namespace {

namespace trivial = boost::log::trivial;

constexpr int kChannel = 0;
constexpr std::size_t kBufferSize = 512;

bool isSeverity(Severity severity) {
    return severity >= kv_trace && severity <= kv_error;
}

bool loggingEnabled() {
    static const boost::log::core& core = *boost::log::core::get();  // the kernel's logger keeps it alive
    return core.get_logging_enabled();
}

/** Emits one line, given with its newline, as one record. */
void logMsg(Severity severity, std::string_view line) {
    std::optional<kv::os::CancellationHold> hold;  // only for a record that the filters accept: sinks block
    line.remove_suffix(1);
    auto& logger = brevane::Logger::getLogger();
    if (!isSeverity(severity)) {
        BOOST_LOG_CHANNEL_SEV(logger, kChannel, trivial::error)
            << (hold.emplace(), "Error occoured during logging, should never land here!");
        return;
    }
    // Boost.Log's trivial levels count as our severities do.
    BOOST_LOG_CHANNEL_SEV(logger, kChannel, static_cast<trivial::severity_level>(severity))
        << (hold.emplace(), "KV: ") << line;
}

/** Emits each complete line of a message. */
void printLines(Severity severity, const char* format, va_list arguments) {
    const kv::os::KeptErrno callersReason;

    std::array<char, kBufferSize> buffer;
    if (std::vsnprintf(buffer.data(), buffer.size(), format, arguments) < 0) {
        return;
    }

    std::string_view text(buffer.data());
    if (text.size() == kBufferSize - 1) {
        buffer[kBufferSize - 2] = '\n';
    }

    // Callers rely on incomplete lines staying unwritten, so what follows the last newline is dropped.
    for (auto newline = text.find('\n'); newline != text.npos; newline = text.find('\n')) {
        try {
            logMsg(severity, text.substr(0, newline + 1));
        } catch (const abi::__forced_unwind&) {
            throw;  // the thread ends in the sink
        } catch (...) {
            // A failing sink costs this record, not the model and not the next line.
        }
        text.remove_prefix(newline + 1);
    }
}

}  // namespace

void kv::print(Severity severity, const char* format, ...) {
    if (!loggingEnabled()) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    printLines(severity, format, arguments);
    va_end(arguments);
}

void kv_printf(Severity severity, const char* msg, ...) {
    if (loggingEnabled()) {
        va_list arguments;
        va_start(arguments, msg);
        printLines(severity, msg, arguments);
        va_end(arguments);
    }
    pthread_testcancel();  // so that a thread that only prints can be destroyed
}
