#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>

#include "support/log_capture.h"

using kv::test::debug;
using kv::test::info;
using kv::test::LogCapture;
using kv::test::Record;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string repeated(std::size_t count) {
    return std::string(count, 'x');
}

TEST(KvPrintf, WritesOneRecordForEachCompleteLineAndDropsTheRest) {
    LogCapture log;
    struct Case {
        const char* text;
        std::vector<Record> records;
    };
    const Case cases[] = {
        {"", {}},
        {"abc", {}},
        {"\n", {info("")}},
        {"a\n", {info("a")}},
        {"a\nb\nc", {info("a"), info("b")}},
        {"\n\nb\n", {info(""), info(""), info("b")}},
    };
    for (const Case& each : cases) {
        kv_printf(kv_info, "%s", each.text);
        EXPECT_EQ(log.take(), each.records) << "for the text '" << each.text << "'";
    }
}

TEST(KvPrintf, CutsAtFiveHundredElevenCharactersAndForcesTheNewline) {
    LogCapture log;
    kv_printf(kv_info, "%s", repeated(510).c_str());
    EXPECT_THAT(log.take(), IsEmpty()) << "510 characters fit and have no newline";

    kv_printf(kv_info, "%s\n", repeated(509).c_str());
    EXPECT_THAT(log.take(), ElementsAre(info(repeated(509))));

    for (const std::size_t length : {511U, 512U, 600U, 5000U}) {
        kv_printf(kv_info, "%s", repeated(length).c_str());
        EXPECT_THAT(log.take(), ElementsAre(info(repeated(510)))) << length << " characters";
    }

    kv_printf(kv_info, "first\n%s\n", repeated(600).c_str());
    EXPECT_THAT(log.take(), ElementsAre(info("first"), info(repeated(504))));
}

TEST(KvPrintf, MapsEverySeverityAndReportsAnImpossibleOneOncePerLine) {
    LogCapture log;
    for (const Severity severity : {kv_trace, kv_debug, kv_info, kv_warning, kv_error}) {
        kv_printf(severity, "at %d\n", severity);
        EXPECT_THAT(log.take(), ElementsAre(Record{severity, 0, "KV: at " + std::to_string(severity)}));
    }
    const Record fallback{kv_error, 0, "Error occoured during logging, should never land here!"};
    kv_printf(static_cast<Severity>(7), "lost\nlost too\n");
    EXPECT_THAT(log.take(), ElementsAre(fallback, fallback));
}

TEST(KvPrintf, DropsAMessageThatCannotBeFormatted) {
    LogCapture log;
    const wchar_t unencodable[] = {static_cast<wchar_t>(0x110000), 0};
    kv_printf(kv_error, "%ls\n", unencodable);
    EXPECT_THAT(log.take(), IsEmpty());
}

/** Fails for the first records that it gets, each in another way, and leaves an errno of its own. */
class FailingBackend : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
 public:
    void consume(const boost::log::record_view& /*record*/) {
        errno = ENOSPC;
        switch (records_++) {
            case 0:
                throw std::runtime_error("disk full");
            case 1:
                throw ENOSPC;
            default:
                break;
        }
    }

 private:
    int records_ = 0;
};

TEST(KvPrintf, LosesOnlyTheRecordsThatASinkFailsForAndKeepsErrno) {
    boost::log::core::get()->add_sink(
        boost::make_shared<boost::log::sinks::synchronous_sink<FailingBackend>>());
    LogCapture log;
    errno = ENOENT;
    kv_printf(kv_info, "a\nb\nc\n");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(log.take(), testing::Contains(info("c")));
    boost::log::core::get()->remove_all_sinks();
}

TEST(KvPrintf, IsSilentWhileTheLoggingCoreIsDisabled) {
    LogCapture log;
    boost::log::core::get()->set_logging_enabled(false);
    kv_printf(kv_error, "unheard\n");
    boost::log::core::get()->set_logging_enabled(true);
    kv_printf(kv_debug, "heard\n");
    EXPECT_THAT(log.take(), ElementsAre(debug("heard")));
}

}  // namespace
