#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include <kv/target.h>
#include <kv/threads.h>

#include "os/cancellation.h"
#include "target/kv_time_internal.h"

namespace {

constexpr const char* kSeparator = " ";
constexpr std::size_t kCalendarTextSize = 50;
constexpr int kMaxYear = 3000;
constexpr double kSecondsPerDay = 86400.0;

constexpr std::size_t kAbbreviationLength = 3;
constexpr std::array kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

/** By month from 1. Entry 0 is that of an unresolved month, the last one the year's end. */
constexpr std::array kDaysBeforeMonth = {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};

constexpr bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr auto kDaysUntilYear = [] {
    std::array<int32_t, kMaxYear + 1> days{};
    for (int year = 0; year < kMaxYear; ++year) {
        const auto index = static_cast<std::size_t>(year);
        days[index + 1] = days[index] + (isLeapYear(year) ? 366 : 365);
    }
    return days;
}();

int dayOfYear(int year, int month, int dom) {
    const int leapDay = isLeapYear(year) && month > 2 ? 1 : 0;
    return kDaysBeforeMonth[static_cast<std::size_t>(month)] + dom + leapDay;
}

/** Copies as much of a token as the field holds; a long one fills it without a terminator. */
template <std::size_t kSize>
void fill(char (&field)[kSize], const char* token) {
    if (token != nullptr) {
        std::memcpy(field, token, ::strnlen(token, kSize));
    }
}

/** A field's text, which has no terminator where it fills the field. */
template <std::size_t kSize>
std::string textOf(const char (&field)[kSize]) {
    return {field, ::strnlen(field, kSize)};
}

}  // namespace

DateStr_T str2ds(char* text) {
    DateStr_T ds{};
    char* rest = nullptr;
    fill(ds.wd, ::strtok_r(text, kSeparator, &rest));
    fill(ds.month, ::strtok_r(nullptr, kSeparator, &rest));
    fill(ds.dom, ::strtok_r(nullptr, kSeparator, &rest));
    fill(ds.hhmmss, ::strtok_r(nullptr, kSeparator, &rest));
    fill(ds.year, ::strtok_r(nullptr, kSeparator, &rest));  // leaves out the newline
    return ds;
}

DateTime_T ds2dt(const DateStr_T& ds) {
    DateTime_T dt{};
    (void)std::sscanf(textOf(ds.year).c_str(), "%i", &dt.year);
    const auto month = std::ranges::find_if(kMonths, [&ds](const char* abbreviation) {
        return std::strncmp(ds.month, abbreviation, kAbbreviationLength) == 0;
    });
    if (month == kMonths.end()) {
        std::printf("ERROR: can't resolve month '%s'\n", textOf(ds.month).c_str());
        return dt;
    }
    dt.month = static_cast<int>(month - kMonths.begin()) + 1;
    (void)std::sscanf(textOf(ds.dom).c_str(), "%02d", &dt.dom);
    dt.doy = dayOfYear(dt.year, dt.month, dt.dom);
    (void)std::sscanf(textOf(ds.hhmmss).c_str(), "%02d:%02d:%02d", &dt.hour, &dt.min, &dt.sec);
    return dt;
}

int getDaysSinceYearZero(int year, int doy) {
    if (year > kMaxYear) {
        std::printf("Maximum value for year is %i.\n", kMaxYear);
        return doy;
    }
    return year < 1 ? doy : kDaysUntilYear[static_cast<std::size_t>(year)] + doy;
}

double dt2dn(const DateTime_T& dt) {
    const int doy = dt.doy == 0 ? dayOfYear(dt.year, dt.month, dt.dom) : dt.doy;
    const int32_t seconds = dt.hour * 3600 + dt.min * 60 + dt.sec;
    return getDaysSinceYearZero(dt.year, doy) + seconds / kSecondsPerDay + dt.subsec / kSecondsPerDay;
}

double str2dn(char* text) {
    return dt2dn(ds2dt(str2ds(text)));
}

int kv_getTargetTime(char* targetTime) {
    const std::time_t now = std::time(nullptr);
    // Not the reentrant ctime_r(), which would not see a change of the machine's time zone.
    std::strcpy(targetTime, std::ctime(&now));
    return 0;
}

double kv_getTargetTimeNum(void) {
    const kv::os::CancellationHold hold;
    std::array<char, kCalendarTextSize> text;
    (void)kv_getTargetTime(text.data());
    return str2dn(text.data());
}

double kv_getSecondsSinceStart(void) {
    static double secondsAtStart = 0.0;
    if (secondsAtStart == 0.0) {
        secondsAtStart = kv_getElapsedTime();
    }
    return kv_getElapsedTime() - secondsAtStart;
}

int print_dt(DateTime_T* dt) {
    const kv::os::CancellationHold hold;
    std::printf("DateTime: %i-", dt->year);
    std::printf("%02i", dt->month);
    std::printf("-%02i ", dt->dom);
    std::printf("%02i:%02i:%02i\n", dt->hour, dt->min, dt->sec);
    return 0;
}

int print_ds(DateStr_T* ds) {
    const kv::os::CancellationHold hold;
    std::printf("DateStr: wd = %s, ", textOf(ds->wd).c_str());
    std::printf("month = %s, ", textOf(ds->month).c_str());
    std::printf("dom = %s, ", textOf(ds->dom).c_str());
    std::printf("hhmmss = %s, ", textOf(ds->hhmmss).c_str());
    std::printf("year = %s\n", textOf(ds->year).c_str());
    return 0;
}
