#include "time_command.h"

#include <array>
#include <chrono>
#include <cstring>
#include <ctime>

#include <kv/diagnostics.h>
#include <kv/target.h>

namespace kvctl {

namespace {

using kv::utils::formatString;

struct Clock {
    std::string text;
    std::string zone;
    double dayNumber;
    std::chrono::seconds uptime;
};

std::string localZone() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 64> zone{};
    (void)std::strftime(zone.data(), zone.size(), "%Z", ::localtime_r(&now, &local));
    return zone.data();
}

std::chrono::seconds uptime() {
    timespec sinceBoot{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);  // can't fail: every kernel has this clock
    return std::chrono::seconds(sinceBoot.tv_sec);
}

Clock readClock() {
    std::array<char, KV_TARGET_TIME_SIZE> text{};
    (void)kv_getTargetTime(text.data());  // always 0
    return {.text = std::string(text.data(), std::strcspn(text.data(), "\n")),
            .zone = localZone(),
            .dayNumber = kv_getTargetTimeNum(),
            .uptime = uptime()};
}

Json toJson(const Clock& clock) {
    return {{"time", clock.text},
            {"zone", clock.zone},
            {"dayNumber", clock.dayNumber},
            {"uptimeSeconds", clock.uptime.count()}};
}

std::string textOf(std::chrono::seconds duration) {
    const std::chrono::hh_mm_ss time(duration % std::chrono::days(1));
    return formatString("%d days, %02d:%02d:%02d", static_cast<int>(duration / std::chrono::days(1)),
                        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                        static_cast<int>(time.seconds().count()));
}

void print(const Clock& clock) {
    printColumns({{"time", clock.text + " " + clock.zone},
                  {"day number", formatString("%.5f", clock.dayNumber)},
                  {"running for", textOf(clock.uptime)}});
}

}  // namespace

void addTimeCommand(command_line::Program& program) {
    command_line::Command& command =
        program.addCommand("time", "Show the machine's clock, and how long the machine has been running");
    const auto asJson = addJsonFlag(command);
    command.setFooter("The day number counts days of local time; 1 January of year 0 begins at 1.0.");
    command.setAction([asJson] {
        const Clock clock = readClock();
        *asJson ? printJson(toJson(clock)) : print(clock);
        return 0;
    });
}

}  // namespace kvctl
