/**
 * @file
 * The log that the whole process writes through.
 */
#pragma once

#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/trivial.hpp>

#include <brevane/export.h>

namespace brevane {

/** The kernel's log: one severity-and-channel logger that the whole process writes through. */
class BREVANE_EXPORT Logger {
 public:
    /** Records carry a severity and a channel, 0 for those of the kernel and the library. */
    using LoggerType =
        boost::log::sources::severity_channel_logger_mt<boost::log::trivial::severity_level, int>;

    /**
     * Returns the process-wide logger. It is made on first use and never destroyed: any thread may write
     * through it at any time, also from exit handlers and static destructors.
     */
    static LoggerType& getLogger();

    /**
     * Sends records to standard error and to brevane.log in /home/brvn/logs, where that may be written to
     * and no other user can have put a link there. It is moved aside at 4 MiB; the last four are kept.
     *
     * Records below the level named by the environment variable BREVANE_LOG (trace, debug, info, warning,
     * error or fatal) are dropped, all of them with "off"; without the variable those below @p defaultLevel.
     * A value that names no level is told on standard error, and @p defaultLevel holds. A record is written
     * when the call that logs it returns; where it can't be written (a full disk) it is dropped without a
     * trace.
     *
     * Kernel::run() calls this; a program that wants another default calls it first. Later calls change
     * nothing.
     */
    static void setUpSinks(boost::log::trivial::severity_level defaultLevel = boost::log::trivial::info);
};

}  // namespace brevane
