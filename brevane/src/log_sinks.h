#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

#include <boost/log/trivial.hpp>

namespace brevane {

/** What the log lets through: this level and those above it, nothing at all when empty. */
using LogThreshold = std::optional<boost::log::trivial::severity_level>;

/** Reads "trace" to "fatal" or "off". @return false, with @p threshold unchanged, for anything else */
bool parseLogThreshold(std::string_view name, LogThreshold& threshold);

void applyLogThreshold(LogThreshold threshold);

/** Sends records to standard error, each in one write. */
void addConsoleSink();

/** A log file that is moved aside when it has grown to its bound; of the old ones, the last few stay. */
struct RotatingLogFile {
    std::filesystem::path directory;
    std::uintmax_t maxBytes;
    std::size_t oldFilesKept;
};

/**
 * Sends records to brevane.log in the directory. Does nothing where that can't be written to. Throws
 * std::runtime_error where the directory or the file is a link or belongs to another user than root and the
 * effective one, and where its group or everybody may write to the directory.
 */
void addFileSink(const RotatingLogFile& file);

}  // namespace brevane
