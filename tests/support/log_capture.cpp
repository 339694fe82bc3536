#include "support/log_capture.h"

#include <regex>
#include <utility>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/trivial.hpp>
#include <boost/make_shared.hpp>

namespace kv::test {

namespace logging = boost::log;

class LogCapture::Backend : public logging::sinks::basic_sink_backend<logging::sinks::synchronized_feeding> {
 public:
    void consume(const logging::record_view& record) {
        const auto severity = logging::extract_or_throw<logging::trivial::severity_level>("Severity", record);
        const auto channel = logging::extract_or_throw<int>("Channel", record);
        records.push_back(
            {static_cast<Severity>(severity), channel, record[logging::expressions::smessage].get()});
    }

    std::vector<Record> records;
};

LogCapture::LogCapture() : backend_(boost::make_shared<Backend>()) {
    auto sink = boost::make_shared<logging::sinks::synchronous_sink<Backend>>(backend_);
    logging::core::get()->add_sink(sink);
    sink_ = sink;
}

LogCapture::~LogCapture() {
    logging::core::get()->remove_sink(
        boost::static_pointer_cast<logging::sinks::synchronous_sink<Backend>>(sink_));
}

std::vector<Record> LogCapture::take() {
    return std::exchange(backend_->records, {});
}

std::vector<Record> LogCapture::takeWithoutAddresses() {
    static const std::regex address("0x0x[0-9a-f]+");
    auto records = take();
    for (Record& record : records) {
        record.text = std::regex_replace(record.text, address, "ADDRESS");
    }
    return records;
}

std::ostream& operator<<(std::ostream& out, const Record& record) {
    return out << '[' << record.severity << ", channel " << record.channel << "] \"" << record.text << '"';
}

}  // namespace kv::test
