#include <cstdlib>
#include <fcntl.h>
#include <regex>
#include <string>
#include <unistd.h>

#include <boost/log/sources/record_ostream.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Logger.h>

using brevane::Logger;
using testing::ExitedWithCode;
using testing::MatchesRegex;
using testing::ResultOf;

namespace {

namespace trivial = boost::log::trivial;

void write(trivial::severity_level level, const std::string& text) {
    BOOST_LOG_CHANNEL_SEV(Logger::getLogger(), 0, level) << text;
}

std::string withoutTimes(const std::string& output) {
    static const std::regex time("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} ");
    return std::regex_replace(output, time, "");
}

TEST(Logger, LetsThroughWhatTheEnvironmentAsksFor) {
    struct Setting {
        const char* value;
        std::string output;
    };
    const Setting settings[] = {
        {nullptr, "warning KV: x\nerror KV: x\nfatal KV: x\n"},
        {"trace", "trace KV: x\ndebug KV: x\ninfo KV: x\nwarning KV: x\nerror KV: x\nfatal KV: x\n"},
        {"fatal", "fatal KV: x\n"},
        {"off", ""},
        {"loud",
         "BREVANE_LOG: \"loud\" is none of trace, debug, info, warning, error, fatal, off; using warning\n"
         "warning KV: x\nerror KV: x\nfatal KV: x\n"},
    };
    for (const Setting& setting : settings) {
        unsetenv("BREVANE_LOG");
        if (setting.value != nullptr) {
            setenv("BREVANE_LOG", setting.value, 1);
        }
        EXPECT_EXIT(
            {
                Logger::setUpSinks(trivial::warning);
                Logger::setUpSinks(trivial::trace);
                for (int level = trivial::trace; level <= trivial::fatal; ++level) {
                    write(static_cast<trivial::severity_level>(level), "KV: x");
                }
                _exit(0);
            },
            ExitedWithCode(0), ResultOf(withoutTimes, setting.output));
    }
}

TEST(Logger, StillWritesFromExitHandlersThatAreOlderThanTheFirstRecord) {
    EXPECT_EXIT(
        {
            std::atexit([] { write(trivial::warning, "KV: last words"); });
            Logger::setUpSinks();
            write(trivial::info, "KV: first words");
            std::exit(0);
        },
        ExitedWithCode(0), ResultOf(withoutTimes, "info KV: first words\nwarning KV: last words\n"));
}

TEST(Logger, OutlivesAConsoleThatTakesNothing) {
    EXPECT_EXIT(
        {
            const int original = dup(STDERR_FILENO);
            dup2(open("/dev/full", O_WRONLY), STDERR_FILENO);
            Logger::setUpSinks();
            write(trivial::error, "KV: lost");
            dup2(original, STDERR_FILENO);
            write(trivial::error, "KV: heard");
            std::exit(0);
        },
        ExitedWithCode(0), MatchesRegex("[^\n]* error KV: heard\n"));
}

}  // namespace
