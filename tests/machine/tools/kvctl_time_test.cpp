#include <chrono>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_kvctl.h"

using kv::test::Outcome;
using kv::test::shell;
using nlohmann::json;

namespace {

constexpr double kDayNumberOf1970 = 719529;
constexpr double kSecondsPerDay = 86400;

TEST(KvctlTime, TellsLocalTimeAndHowLongTheMachineHasBeenRunning) {
    timespec sinceBoot{};
    ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const std::time_t before = std::time(nullptr);
    const json shown = json::parse(shell("TZ=XYZ-2 " KVCTL_PROGRAM " time --json").output);

    const double secondsSince1970 = (shown["dayNumber"].get<double>() - kDayNumberOf1970) * kSecondsPerDay;
    EXPECT_NEAR(secondsSince1970 - 2 * 3600, static_cast<double>(before), 20);
    EXPECT_EQ(shown["zone"], "XYZ");
    EXPECT_NEAR(shown["uptimeSeconds"].get<double>(), static_cast<double>(sinceBoot.tv_sec), 20);

    std::tm parsed{};
    const std::string text = shown["time"];
    EXPECT_EQ(*::strptime(text.c_str(), "%a %b %e %H:%M:%S %Y", &parsed), '\0') << text;
    EXPECT_NEAR(static_cast<double>(::timegm(&parsed)), secondsSince1970, 2);

    const Outcome forPeople = shell("TZ=XYZ-2 " KVCTL_PROGRAM " time");
    EXPECT_EQ(forPeople.status, 0);
    EXPECT_THAT(forPeople.output, testing::MatchesRegex("time         .{24} XYZ\n"
                                                        "day number   [0-9]{6}\\.[0-9]{5}\n"
                                                        "running for  [0-9]+ days, [0-9:]{8}\n"));
}

}  // namespace
