#include <kvsim/machine.h>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <kv/target.h>

#include "support/machine_test.h"

using kvsim::Machine;

namespace {

constexpr const char* kMarketingName = "/usr/kelvaro/sysinfo/kelvaro_marketingName.txt";
constexpr const char* kVersion = "/usr/kelvaro/sysinfo/kelvaro_version.txt";
constexpr const char* kSerialNumber = "/sys/devices/platform/ember/rttm/system_serial";

using Text = std::optional<std::string>;

/** Gives a file a text, or takes it away. */
void put(const std::string& path, const Text& text) {
    Machine::write(path, text.value_or(""));
    if (!text) {
        Machine::remove(path);
    }
}

TEST(TargetScreen, ShowsMakerNameAndSerialNumber) {
    Machine machine;
    ENTER_MACHINE(machine);
    const struct {
        Text name;
        Text serial;
        const char* line;
    } cases[] = {
        {"Ember real-time target machine\n", "4711\n", "Kelvaro Ember real-time target machine SN 4711"},
        {"Ember\r\nsecond line\n", "i12", "Kelvaro Ember\r SN i12"},
        {"no final newline", "s77", "Kelvaro no final newline SN s77"},
        {"", "0", "Kelvaro  SN 0"},
        {"\n", "", "Kelvaro  NoSerialNumber"},
        {{}, "x", "Kelvaro MarketingName NoSerialNumber"},
        {{}, {}, "Kelvaro MarketingName NoSerialNumber"},
    };
    for (const auto& each : cases) {
        put(kMarketingName, each.name);
        put(kSerialNumber, each.serial);
        EXPECT_EQ(kv_getTargetScreenLine1(), std::string("<white>") + each.line + "</white>");
    }
    Machine::replaceByFolder(kMarketingName);
    EXPECT_EQ(kv_getTargetScreenLine1(), "<white>Kelvaro  NoSerialNumber</white>") << "unreadable";
}

TEST(TargetScreen, ShowsTheVersion) {
    Machine machine;
    ENTER_MACHINE(machine);
    for (const auto& [text, line] : {std::pair<Text, const char*>{"2.4.1\n", "2.4.1"},
                                     {"2.4.1 beta\n2.4.0\n", "2.4.1 beta"},
                                     {"", ""},
                                     {"\n", ""},
                                     {{}, ""}}) {
        put(kVersion, text);
        EXPECT_EQ(kv_getTargetScreenLine2(), std::string("<white>") + line + "</white>");
    }
}

}  // namespace
