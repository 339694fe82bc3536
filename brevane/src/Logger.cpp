#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <stdexcept>

#include <boost/log/core.hpp>
#include <boost/log/keywords/channel.hpp>
#include <boost/log/keywords/severity.hpp>
#include <boost/log/sources/record_ostream.hpp>

#include <brevane/Logger.h>

#include "log_sinks.h"

namespace brevane {

namespace {

namespace keywords = boost::log::keywords;
namespace trivial = boost::log::trivial;

constexpr const char* kLevelVariable = "BREVANE_LOG";
constexpr const char* kLogDirectory = "/home/brvn/logs";
constexpr std::uintmax_t kMaxLogBytes = 4 << 20;
constexpr std::size_t kOldLogsKept = 4;

LogThreshold thresholdFromEnvironment(trivial::severity_level defaultLevel) {
    LogThreshold threshold = defaultLevel;
    const char* value = std::getenv(kLevelVariable);
    if (value != nullptr && !parseLogThreshold(value, threshold)) {
        std::cerr << kLevelVariable << ": \"" << value
                  << "\" is none of trace, debug, info, warning, error, fatal, "
                  << "off; using " << defaultLevel << std::endl;
    }
    return threshold;
}

void addFileSinkIfPossible() {
    try {
        addFileSink({kLogDirectory, kMaxLogBytes, kOldLogsKept});
    } catch (const std::exception& failure) {
        std::cerr << kLogDirectory << ": no log file is kept here: " << failure.what() << std::endl;
    }
}

/** Makes formatting throw: a record whose text throws is opened, and then never pushed to the sinks. */
struct Unprintable {
    friend std::ostream& operator<<(std::ostream&, const Unprintable&) { throw std::logic_error("no text"); }
};

/**
 * Makes the log outlive every library that writes to it.
 *
 * Boost.Log keeps its formatting streams in storage that it makes with the first record and destroys at exit;
 * a record after that throws. Making it while this library is loaded, which is before those that depend on
 * it, has it destroyed after their exit handlers and static destructors. What logs later still is dropped.
 */
class LogUntilTheEnd {
 public:
    LogUntilTheEnd() {
        try {
            BOOST_LOG(Logger::getLogger()) << Unprintable();
        } catch (const std::logic_error&) {
            // As intended: nothing was written.
        }
    }
    ~LogUntilTheEnd() { boost::log::core::get()->set_logging_enabled(false); }
    LogUntilTheEnd(const LogUntilTheEnd&) = delete;
    LogUntilTheEnd& operator=(const LogUntilTheEnd&) = delete;
};

const LogUntilTheEnd logUntilTheEnd;

}  // namespace

Logger::LoggerType& Logger::getLogger() {
    static LoggerType& logger = *new LoggerType(keywords::channel = 0, keywords::severity = trivial::info);
    return logger;
}

void Logger::setUpSinks(trivial::severity_level defaultLevel) {
    static std::once_flag done;
    std::call_once(done, [defaultLevel] {
        // The logger keeps the logging core, and so the sinks, alive until the very end of the process.
        getLogger();
        applyLogThreshold(thresholdFromEnvironment(defaultLevel));
        addConsoleSink();
        addFileSinkIfPossible();
    });
}

}  // namespace brevane
