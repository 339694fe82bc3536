#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "target/kv_time_internal.h"

namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr int kDaysBefore1970 = 719528;  // from 1 January of year 0, which is day 1
constexpr double kSecondsPerDay = 86400.0;

/** The day number of a text, and what standard output was told meanwhile. */
struct Parsed {
    double number;
    std::string said;
};

Parsed parse(std::string text) {
    testing::internal::CaptureStdout();
    const double number = str2dn(text.data());
    return {number, testing::internal::GetCapturedStdout()};
}

DateTime_T fieldsOf(std::string text) {
    return ds2dt(str2ds(text.data()));
}

std::string calendarText(const std::string& date) {
    return "Mon " + date + "\n";
}

TEST(DayNumber, AgreesWithTheCalendarFrom1970To2100) {
    const sys_days first = std::chrono::January / 1 / 1970;
    const sys_days last = std::chrono::December / 31 / 2100;
    for (sys_days day = first; day <= last; day += std::chrono::days(1)) {
        const std::time_t noon = std::chrono::system_clock::to_time_t(day + std::chrono::hours(12));
        std::tm utc{};
        char text[26];
        ASSERT_NE(::asctime_r(::gmtime_r(&noon, &utc), text), nullptr);
        const std::string shown = text;
        const auto daysSince1970 = static_cast<int>(day.time_since_epoch().count());
        const double expected = kDaysBefore1970 + 1 + daysSince1970 + 0.5;
        ASSERT_EQ(str2dn(text), expected) << shown;
    }
}

TEST(DayNumber, CountsFromTheFirstDayOfYear0) {
    const struct {
        const char* date;
        double number;
    } cases[] = {
        {"Jan  1 00:00:00 0", 1},
        {"Dec 31 00:00:00 0", 366},
        {"Jan  1 00:00:00 1", 367},
        {"Dec 31 12:00:00 1", 731.5},
        {"Jan  1 00:00:00 2999", 1095364},
        {"Jan  1 00:00:00 3000", 1095729},
        {"Dec 31 23:59:60 3000", 1096094},  // a leap second reaches the next day
        {"Jan  1 00:00:01 1970", kDaysBefore1970 + 1 + 1 / kSecondsPerDay},
        {"Mar  1 06:00:00 -4", 61.25},
    };
    for (const auto& each : cases) {
        const auto [number, said] = parse(calendarText(each.date));
        EXPECT_EQ(number, each.number) << each.date;
        EXPECT_EQ(said, "");
    }
    EXPECT_EQ(getDaysSinceYearZero(1970, 1),
              static_cast<int>((sys_days(std::chrono::January / 1 / 1970) -
                                sys_days(std::chrono::January / 1 / std::chrono::year(0)))
                                   .count()) +
                  1);
}

TEST(DayNumber, OfAYearAbove3000IsThatOfTheDayAlone) {
    const auto [number, said] = parse(calendarText("Feb  2 12:00:00 3001"));
    EXPECT_EQ(number, 33.5);
    EXPECT_EQ(said, "Maximum value for year is 3000.\n");
}

TEST(DayNumber, OfAnUnknownMonthIsThatOfTheYearAlone) {
    for (const std::string month : {"Foo", "jan", "Ja"}) {
        const auto [number, said] = parse(calendarText(month + " 17 12:30:00 2000"));
        EXPECT_EQ(number, getDaysSinceYearZero(2000, 0)) << month;
        EXPECT_EQ(said, "ERROR: can't resolve month '" + month + "'\n");
    }
    EXPECT_EQ(parse(calendarText("Sept 1 00:00:00 2000")).said, "") << "three characters count";
    EXPECT_EQ(parse("").said, "ERROR: can't resolve month ''\n");
    EXPECT_EQ(parse("Mon Januaries").number, 0) << "fields that are missing count as 0";
}

TEST(DayOfYear, CountsTheLeapDayFromMarchOn) {
    const struct {
        const char* date;
        int doy;
    } cases[] = {{"Jan  1", 1},   {"Jan 31", 31},  {"Feb  1", 32},  {"Mar 31", 90},  {"Apr  1", 91},
                 {"Apr 30", 120}, {"May  1", 121}, {"May 31", 151}, {"Jun  1", 152}, {"Jun 30", 181},
                 {"Jul  1", 182}, {"Jul 31", 212}, {"Aug  1", 213}, {"Aug 31", 243}, {"Sep  1", 244},
                 {"Sep 30", 273}, {"Oct  1", 274}, {"Oct 31", 304}, {"Nov  1", 305}, {"Nov 30", 334},
                 {"Dec  1", 335}, {"Dec 31", 365}, {"Mar 01", 60}};
    for (const auto& each : cases) {
        const int leapDay = each.doy > 59 ? 1 : 0;
        for (const auto& [year, isLeap] : {std::pair("2023", 0), {"2100", 0}, {"2024", 1}, {"2000", 1}}) {
            const DateTime_T dt = fieldsOf(calendarText(std::string(each.date) + " 00:00:00 " + year));
            EXPECT_EQ(dt.doy, each.doy + leapDay * isLeap) << each.date << ' ' << year;
            DateTime_T withoutDoy = dt;
            withoutDoy.doy = 0;
            EXPECT_EQ(dt2dn(withoutDoy), dt2dn(dt)) << "computed again where it is missing";
        }
    }
    EXPECT_EQ(fieldsOf(calendarText("Feb 29 00:00:00 2024")).doy, 60);
}

TEST(CalendarText, IsCutIntoFields) {
    std::string text = "Wed Jun  5 14:07:09 2024\n";
    DateStr_T ds = str2ds(text.data());
    DateTime_T dt = ds2dt(ds);
    dt.subsec = 0.25;
    EXPECT_EQ(dt2dn(dt), getDaysSinceYearZero(2024, 157) + 50829 / kSecondsPerDay + 0.25 / kSecondsPerDay);

    testing::internal::CaptureStdout();
    EXPECT_EQ(print_ds(&ds), 0);
    EXPECT_EQ(print_dt(&dt), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "DateStr: wd = Wed, month = Jun, dom = 5, hhmmss = 14:07:09, year = 2024\n"
              "DateTime: 2024-06-05 14:07:09\n");
}

TEST(TargetTime, IsTheLocalTime) {
    ::setenv("TZ", "UTC-5:30", 1);
    ::tzset();
    char text[KV_TARGET_TIME_SIZE];
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(kv_getTargetTime(text), 0);
    const double number = kv_getTargetTimeNum();
    const std::time_t after = std::time(nullptr);

    EXPECT_EQ(std::strlen(text), 25U);
    std::tm local{};
    ASSERT_NE(::strptime(text, "%a %b %e %H:%M:%S %Y\n", &local), nullptr) << text;
    const std::time_t told = std::mktime(&local);
    EXPECT_TRUE(before <= told && told <= after) << text;
    constexpr int kOffsetSeconds = 5 * 3600 + 30 * 60;
    const double seconds = (number - (kDaysBefore1970 + 1)) * kSecondsPerDay - kOffsetSeconds;
    EXPECT_GE(seconds, static_cast<double>(before) - 1e-3);
    EXPECT_LE(seconds, static_cast<double>(after) + 1e-3);
}

TEST(SecondsSinceStart, CountFromTheFirstCall) {
    const double first = kv_getSecondsSinceStart();
    EXPECT_GE(first, 0);
    EXPECT_LT(first, 1);
    const timespec tenth{.tv_sec = 0, .tv_nsec = 100'000'000};
    ::nanosleep(&tenth, nullptr);
    EXPECT_GE(kv_getSecondsSinceStart() - first, 0.1);
}

}  // namespace
