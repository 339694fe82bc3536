#include "log_sinks.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <memory>
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

constexpr const char* kFileName = "brevane.log";

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
void refuseForeign(int directory) {
    struct stat status {};
    if (fstat(directory, &status) != 0 || !isOurs(status) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error("the folder is a link, or another user may write to it");
    }
    const bool exists = fstatat(directory, kFileName, &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && (!S_ISREG(status.st_mode) || !isOurs(status) || status.st_nlink > 1)) {
        throw std::runtime_error(std::string(kFileName) + " is a link, or belongs to another user");
    }
}

/**
 * Opens a directory for the sink that keeps its files there, and names it by the descriptor: files opened
 * later are in this directory, whatever its path leads to then.
 */
class PinnedDirectory {
 public:
    explicit PinnedDirectory(const std::filesystem::path& path)
        : fd_(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {}
    ~PinnedDirectory() { close(fd_); }
    PinnedDirectory(const PinnedDirectory&) = delete;
    PinnedDirectory& operator=(const PinnedDirectory&) = delete;

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
    int fd_;
};

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
    const auto directory = std::make_shared<PinnedDirectory>(file.directory);
    refuseForeign(directory->fd());
    const std::string path = directory->path();
    const boost::shared_ptr<sinks::text_file_backend> backend(
        new sinks::text_file_backend(
            keywords::file_name = path + '/' + kFileName,
            keywords::target_file_name = path + "/brevane.%5N.log", keywords::open_mode = std::ios::app,
            keywords::rotation_size = file.maxBytes, keywords::enable_final_rotation = false,
            keywords::auto_flush = true, keywords::auto_newline_mode = sinks::disabled_auto_newline),
        [directory](sinks::text_file_backend* closing) { delete closing; });
    backend->set_file_collector(
        sinks::file::make_collector(keywords::target = path, keywords::max_files = file.oldFilesKept));
    backend->scan_for_files();
    addSink(backend, "%Y-%m-%d %H:%M:%S.%f");
}

}  // namespace brevane
