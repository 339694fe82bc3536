#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kv/diagnostics.h>

namespace kv::test {

/** One record of the kernel's log, as a sink receives it. */
struct Record {
    Severity severity;
    int channel;
    std::string text;

    bool operator==(const Record&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Record& record);

/** Records that the library writes, without their common prefix and channel. */
inline Record trace(const std::string& line) {
    return {kv_trace, 0, "KV: " + line};
}
inline Record debug(const std::string& line) {
    return {kv_debug, 0, "KV: " + line};
}
inline Record info(const std::string& line) {
    return {kv_info, 0, "KV: " + line};
}
inline Record warning(const std::string& line) {
    return {kv_warning, 0, "KV: " + line};
}
inline Record error(const std::string& line) {
    return {kv_error, 0, "KV: " + line};
}

/** Collects every log record of the process while it lives. */
class LogCapture {
 public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /** The records since the last call. */
    std::vector<Record> take();

    /** The same, with every address ("0x0x...") replaced by "ADDRESS". */
    std::vector<Record> takeWithoutAddresses();

 private:
    class Backend;
    boost::shared_ptr<Backend> backend_;
    boost::shared_ptr<void> sink_;
};

}  // namespace kv::test
