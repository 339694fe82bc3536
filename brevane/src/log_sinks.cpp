#include "log_sinks.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/utility/exception_handler.hpp>
#include <boost/make_shared.hpp>

namespace brevane {

namespace {

namespace logging = boost::log;
namespace expressions = boost::log::expressions;
namespace keywords = boost::log::keywords;
namespace sinks = boost::log::sinks;

/** Writes straight to the descriptor: a stream would go silent for good after one failed write. */
class ConsoleBackend : public sinks::basic_formatted_sink_backend<char> {
 public:
    static void consume(const logging::record_view&, const std::string& line) {
        // What can't be written is lost: there is nowhere else to tell it.
        while (::write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
        }
    }
};

template <typename Backend>
void addSink(const boost::shared_ptr<Backend>& backend, const char* timeFormat) {
    auto sink = boost::make_shared<sinks::synchronous_sink<Backend>>(backend);
    sink->set_formatter(expressions::stream
                        << expressions::format_date_time<boost::posix_time::ptime>("TimeStamp", timeFormat)
                        << ' ' << logging::trivial::severity << ' ' << expressions::smessage << '\n');
    // A record that can't be written is dropped. Everything else, such as a thread's cancellation, passes
    // through.
    sink->set_exception_handler(
        logging::make_exception_handler<std::exception>([](const std::exception&) {}));
    logging::core::get()->add_global_attribute("TimeStamp", logging::attributes::local_clock());
    logging::core::get()->add_sink(sink);
}

bool isWritableDirectory(const std::filesystem::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

bool isOurs(const struct stat& status) {
    return status.st_uid == 0 || status.st_uid == geteuid();
}

/** Throws where another user could lead the log to a file of their choice. */
void refuseForeign(const std::string& directory, const std::string& file) {
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || !isOurs(status) ||
        (status.st_mode & S_IWOTH) != 0) {
        throw std::runtime_error("the folder is a link, or another user may write to it");
    }
    const bool exists = lstat(file.c_str(), &status) == 0;
    if (exists && (!S_ISREG(status.st_mode) || !isOurs(status) || status.st_nlink > 1)) {
        throw std::runtime_error(file + " is a link, or belongs to another user");
    }
}

}  // namespace

bool parseLogThreshold(std::string_view name, LogThreshold& threshold) {
    if (name == "off") {
        threshold.reset();
        return true;
    }
    auto level = logging::trivial::info;
    if (!logging::trivial::from_string(name.data(), name.size(), level)) {
        return false;
    }
    threshold = level;
    return true;
}

void applyLogThreshold(LogThreshold threshold) {
    const auto core = logging::core::get();
    core->set_logging_enabled(threshold.has_value());
    if (threshold) {
        core->set_filter(logging::trivial::severity >= *threshold);
    }
}

void addConsoleSink() {
    addSink(boost::make_shared<ConsoleBackend>(), "%H:%M:%S.%f");
}

void addFileSink(const RotatingLogFile& file) {
    if (!isWritableDirectory(file.directory)) {
        return;
    }
    const std::string directory = file.directory.string();
    const std::string path = directory + "/brevane.log";
    refuseForeign(directory, path);
    auto backend = boost::make_shared<sinks::text_file_backend>(
        keywords::file_name = path, keywords::target_file_name = directory + "/brevane.%5N.log",
        keywords::open_mode = std::ios::app, keywords::rotation_size = file.maxBytes,
        keywords::enable_final_rotation = false, keywords::auto_flush = true,
        keywords::auto_newline_mode = sinks::disabled_auto_newline);
    backend->set_file_collector(
        sinks::file::make_collector(keywords::target = directory, keywords::max_files = file.oldFilesKept));
    backend->scan_for_files();
    addSink(backend, "%Y-%m-%d %H:%M:%S.%f");
}

}  // namespace brevane
