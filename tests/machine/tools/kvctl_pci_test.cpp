#include <kvsim/machine.h>
#include <set>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "run_kvctl.h"

using kv::test::kvctl;
using kv::test::kvctlJson;
using kv::test::Outcome;
using kv::test::shell;
using nlohmann::json;
using testing::HasSubstr;

namespace {

/** "bus:slot.function vendor:device" of every function in a topology. */
void collect(const json& functions, std::set<std::string>& list) {
    for (const json& function : functions) {
        list.insert(function.at("address").get<std::string>() + " " +
                    function.at("vendor").get<std::string>() + ":" +
                    function.at("device").get<std::string>());
        if (function.contains("children")) {
            collect(function["children"], list);
        }
    }
}

TEST(KvctlPci, ListsTheFunctionsOfThisDeskAsLspciDoes) {
    const Outcome lspci = shell("lspci -n");
    if (lspci.status != 0 || lspci.output.empty()) {
        GTEST_SKIP() << "lspci finds no PCI devices on this desk";
    }
    std::set<std::string> ours;
    collect(json::parse(kvctl("pci --json").output), ours);
    std::set<std::string> buses;
    for (const std::string& function : ours) {
        buses.insert(function.substr(0, 2));
    }

    std::set<std::string> theirs;
    std::istringstream lines(lspci.output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string address;
        std::string deviceClass;
        std::string ids;
        words >> address >> deviceClass >> ids;
        if (buses.contains(address.substr(0, 2))) {  // a desk may have further host bridges
            theirs.insert(address + " " + ids);
        }
    }
    EXPECT_EQ(ours, theirs);
}

TEST(KvctlPci, ShowsTheTopologyForPeopleAndForPrograms) {
    kvsim::Machine machine;
    kvsim::PciFunction bridge;
    bridge.slot = 1;
    machine.addBridge(bridge, 3).expressCapability(2, 4);
    kvsim::PciFunction board;
    board.bus = 3;
    board.vendor = 0x1b5a;
    board.device = 0x0a18;
    machine.addPciFunction(board).subsystem(0x1b5a, 0x0001);
    ENTER_MACHINE(machine);

    const Outcome tree = kvctl("pci");
    EXPECT_EQ(tree.status, 0);
    EXPECT_THAT(tree.output, HasSubstr("└─ 00:01.0  10b5:8605  PCIe2 x4  bridge to bus 03\n"
                                       "   └─ 03:00.0  1b5a:0a18  PCI       "));

    const json topology = json::parse(kvctl("pci --json").output);
    const json& child = topology.at(0).at("children").at(0);
    EXPECT_EQ(topology[0]["secondaryBus"], 3);
    EXPECT_EQ(child["address"], "03:00.0");
    EXPECT_EQ(child["subsystemDevice"], "0001");
    EXPECT_EQ(child["class"], "118000");
    EXPECT_EQ(child["interface"], "PCI");
    EXPECT_FALSE(child.contains("children"));
}

TEST(KvctlPci, TellsAnEmptyBusFromNoAccessToPci) {
    kvsim::Machine machine;
    ENTER_MACHINE(machine);
    EXPECT_EQ(kvctl("pci").output, "No PCI devices.\n");
    EXPECT_EQ(json::parse(kvctl("pci --json").output), json::array());

    kvsim::Machine::remove("/sys/bus/pci/devices");
    const Outcome failed = kvctl("pci");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output, "kvctl: /sys/bus/pci/devices: this machine offers no access to PCI\n");
    EXPECT_EQ(kvctlJson("pci"), json::array());
}

}  // namespace
