#include <filesystem>
#include <sys/mount.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_kvctl.h"
#include "support/blaze_ports.h"

using kv::test::kvctl;
using kv::test::kvctlJson;
using kv::test::Outcome;
using kvsim::Machine;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

const std::string kFile = "/usr/kelvaro/sysinfo/ethTranslateFile.txt";
const std::string kError = "kvctl: " + kFile + ": ";

/** The ports as "LABEL INTERFACE INDEX PCI", without which a "-" stands. */
std::vector<std::string> portsOf(const json& list) {
    std::vector<std::string> ports;
    for (const json& port : list) {
        ports.push_back(port["label"].get<std::string>() + " " + port["interface"].get<std::string>() + " " +
                        std::to_string(port["index"].get<int>()) + " " +
                        (port["pciAddress"].is_null() ? "-" : port["pciAddress"].get<std::string>()));
    }
    return ports;
}

TEST(KvctlEth, LabelsThePortsOfEveryModule) {
    Machine machine = kv::test::machineNamed("blaze");
    ENTER_MACHINE(machine);
    const json written = kvctlJson("eth --write");
    std::vector<std::string> expected = {"Hostlink end0 -1 -", "ETH1 end1 -1 -", "ETH2 eth0 0 05:00.0",
                                         "ETH3 eth1 1 06:00.0"};
    for (const auto& [label, index, place] : kv::test::kBlazeModulePorts) {
        const std::string interfaces = std::string("/sys/bus/pci/devices/0000:") + place + "/net";
        const std::string interface = std::filesystem::directory_iterator(interfaces)->path().filename();
        expected.push_back(std::string(label) + " " + interface + " " + std::to_string(index) + " " + place);
    }
    EXPECT_THAT(portsOf(written), testing::ElementsAreArray(expected));
    for (const json& port : written) {
        const auto interface = port["interface"].get<std::string>();
        EXPECT_EQ(port["mac"].get<std::string>() + "\n",
                  Machine::read("/sys/class/net/" + interface + "/address"));
    }
    EXPECT_EQ(kvctlJson("eth"), written);
}

TEST(KvctlEth, ShowsTheFileThatIsThere) {
    Machine machine = kv::test::machineNamed("ember");
    ENTER_MACHINE(machine);
    Machine::write(kFile, "end0:-1:Hostlink;:0:ETH1;eth3:3:NMA_1B;");
    const Outcome shown = kvctl("eth");
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.output,
              "label     interface  index  PCI      MAC\n"
              "Hostlink  end0       -1     -        02:00:00:00:00:06\n"
              "ETH1      -          0      -        -\n"
              "NMA_1B    eth3       3      0e:00.0  02:00:00:00:00:05\n");

    Machine::write(kFile, "");
    EXPECT_EQ(kvctlJson("eth"), json::array());
    Machine::write(kFile, "gone0:0:ETH1;");
    const Outcome gone = kvctl("eth");
    EXPECT_EQ(gone.status, 1);
    EXPECT_THAT(gone.output, HasSubstr("kvctl: /sys/class/net/gone0/address: No such file or directory\n"));
    EXPECT_THAT(gone.output, HasSubstr("ETH1   gone0      0      -    -\n"));
}

TEST(KvctlEth, ReadsTheFileUpToWhatIsNoEntry) {
    Machine machine = kv::test::machineNamed("bare");
    ENTER_MACHINE(machine);
    const std::string good = "end0:-1:Hostlink;";
    for (const std::string& bad :
         {std::string(";"), std::string("eth0:1;"), std::string("eth0:x:ETH1;"), std::string("eth0:1x:ETH1;"),
          std::string("eth0:99999999999:ETH1;"), std::string("../eth0:1:ETH1;"), std::string("eth0:1:ETH1"),
          std::string("\n"), std::string(1 << 20, '\xff')}) {
        Machine::write(kFile, good + bad);
        const Outcome errors = kvctl("eth 2>&1 >/dev/null");
        EXPECT_EQ(errors.status, 1) << bad.substr(0, 20);
        EXPECT_EQ(errors.output, kError + "there is no entry INTERFACE:INDEX:LABEL; at byte 17\n");
        EXPECT_EQ(kvctlJson("eth").size(), 1U);
    }
    Machine::write(kFile, "end0:0:\xff;");
    EXPECT_EQ(kvctlJson("eth")[0]["label"], "\xEF\xBF\xBD");
}

TEST(KvctlEth, NamesTheFileThatIsMissingOrCannotBeWritten) {
    Machine machine = kv::test::machineNamed("bare");
    ENTER_MACHINE(machine);
    const Outcome missing = kvctl("eth");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output, kError + "No such file or directory; kvctl eth --write makes it\n");
    EXPECT_EQ(kvctlJson("eth"), json::array());

    Machine::replaceByFolder(kFile);
    EXPECT_EQ(kvctl("eth").output, kError + "Is a directory\n");
    const Outcome failed = kvctl("eth --write");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.output, HasSubstr("KV: Failed to create file: " + kFile));
    EXPECT_THAT(failed.output, EndsWith(kError + "not written, for the reason in the library's log\n"));
    EXPECT_EQ(kvctlJson("eth --write"), json::array());

    ASSERT_EQ(::mount("full", "/usr/kelvaro/sysinfo", "tmpfs", 0, "size=4k"), 0);
    Machine::write("/usr/kelvaro/sysinfo/other", std::string(4096, 'x'));
    const Outcome full = kvctl("eth --write");
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.output, HasSubstr("No space left on device"));
}

}  // namespace
