#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_kvctl.h"

using kv::test::kvctl;
using kv::test::kvctlJson;
using kv::test::Outcome;
using kvsim::Machine;
using nlohmann::json;

namespace {

constexpr const char* kSerialNumberFile = "/sys/devices/platform/ember/rttm/system_serial";
constexpr const char* kTemperatureFile = "/sys/class/hwmon/hwmon0/temp1_input";
constexpr const char* kNameFile = "/usr/kelvaro/sysinfo/kelvaro_marketingName.txt";
constexpr const char* kVersionFile = "/usr/kelvaro/sysinfo/kelvaro_version.txt";

TEST(KvctlInfo, DescribesTheMachineForPeople) {
    Machine machine = kv::test::machineNamed("ember");
    ENTER_MACHINE(machine);
    const Outcome info = kvctl("info");
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(info.output,
              "type           Olive\n"
              "name           Ember real-time target machine\n"
              "serial number  40127\n"
              "  internal     none\n"
              "  supplier's   none\n"
              "temperature    45 degrees Celsius\n"
              "CPUs           4\n"
              "library        2.4.1\n"
              "screen         Kelvaro Ember real-time target machine SN 40127\n"
              "               2.4.1\n");
}

TEST(KvctlInfo, DescribesTheMachineForPrograms) {
    Machine machine = kv::test::machineNamed("bare");
    ENTER_MACHINE(machine);
    EXPECT_EQ(kvctl("info --json").status, 0);
    EXPECT_EQ(kvctlJson("info"), json::parse(R"({
        "type": "Olive",
        "name": "Ember real-time target machine",
        "serialNumbers": {"customer": null, "internal": 17, "supplier": null},
        "temperatureCelsius": 38,
        "cpus": 2,
        "libraryVersion": "2.4.1",
        "screenLines": ["<white>Kelvaro Ember real-time target machine SN i17</white>",
                        "<white>2.4.1</white>"]})"));
    for (const auto& [record, supplier] :
         {std::pair("s77\n", 77), std::pair("s-5\n", -5), std::pair("s3000000000", -1294967296)}) {
        Machine::write(kSerialNumberFile, record);
        EXPECT_EQ(kvctlJson("info")["serialNumbers"]["supplier"], supplier) << "as the screen shows it";
    }
}

TEST(KvctlInfo, ShowsNothingThatATerminalObeys) {
    Machine machine = kv::test::machineNamed("bare");
    ENTER_MACHINE(machine);
    const std::string hostile("2\x1b[2J\x9b\xc2\x9b\r\0\t\x7f\xc3\xb6\xe2\x82", 16);
    const std::string shown = "2\\x1B[2J\\x9B\\xC2\\x9B\\x0D\\x00\\x09\\x7F\xc3\xb6\\xE2\\x82\n";
    Machine::write(kVersionFile, hostile);
    EXPECT_THAT(kvctl("info").output, testing::EndsWith("               " + shown))
        << "second line of the screen";
    EXPECT_THAT(kvctl("info --json").output,
                testing::HasSubstr(R"(>2\u001b[2J\ufffd\u009b\r\u0000\t\u007f\u00f6\ufffd<)"));
    Machine::write("/usr/kelvaro/sysinfo/ethTranslateFile.txt", "e\x1b:0:L\a;");
    EXPECT_EQ(kvctl("eth").output,
              "kvctl: /sys/class/net/e\\x1B/address: No such file or directory\n"
              "label  interface  index  PCI  MAC\n"
              "L\\x07  e\\x1B      0      -    -\n");
}

TEST(KvctlInfo, NamesEachFileThatIsMissingAndShowsTheRest) {
    Machine machine;
    ENTER_MACHINE(machine);
    Machine::remove(kSerialNumberFile);
    Machine::write(kTemperatureFile, "");
    Machine::replaceByFolder(kVersionFile);
    Machine::remove(kNameFile);

    const Outcome errors = kvctl("info 2>&1 >/dev/null");
    EXPECT_EQ(errors.status, 1);
    EXPECT_EQ(errors.output, std::string("kvctl: ") + kSerialNumberFile + ": No such file or directory\n" +
                                 "kvctl: " + kTemperatureFile + ": the file is empty\n" +
                                 "kvctl: " + kVersionFile + ": Is a directory\n" + "kvctl: " + kNameFile +
                                 ": No such file or directory\n");
    const json info = kvctlJson("info");
    EXPECT_EQ(info["type"], "Olive");
    EXPECT_EQ(info["temperatureCelsius"], nullptr);
    EXPECT_EQ(info["libraryVersion"], nullptr);

    Machine::write(kSerialNumberFile, "\x01\x02");
    EXPECT_THAT(kvctl("info").output,
                testing::HasSubstr(std::string(kSerialNumberFile) + ": this is no serial number\n"));
}

TEST(KvctlInfo, FailsWhereItsOutputIsLost) {
    EXPECT_EQ(kvctl("time >/dev/full").status, 1);
}

}  // namespace
