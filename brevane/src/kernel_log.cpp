#include "kernel_log.h"

#include <exception>

#include <boost/log/sources/record_ostream.hpp>

#include <brevane/Logger.h>

namespace brevane {

namespace {

constexpr int kChannel = 0;

}  // namespace

void log(boost::log::trivial::severity_level level, std::string_view text) {
    try {
        BOOST_LOG_CHANNEL_SEV(Logger::getLogger(), kChannel, level) << "Kernel: " << text;
    } catch (const std::exception&) {
        // Our own sinks drop what they can't write; a program's sink may throw, and the model runs on without
        // it.
    }
}

}  // namespace brevane
