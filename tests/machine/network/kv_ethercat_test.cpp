#include <unistd.h>

#include "network_machine.h"

using kv::test::error;
using kv::test::info;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** Two controllers that the network driver holds, the second one on a bus of its own. */
class Ethercat : public kv::test::NetworkMachine {
 protected:
    void SetUp() override {
        ::alarm(20);
        addBridge(0, 1, 1);
        addController(1, 0x1533, 4).driver("igb").networkInterface("eth1");
        addController(0, 0x1533, 9).driver("igb").networkInterface("eth0");
        machine_.addPciDriver("atemsys_pci", {{0x8086, 0x1533}});
        ENTER_MACHINE(machine_);
    }

    /** The driver of each controller, in the order of their addresses; empty where it has none. */
    static std::vector<std::string> drivers() {
        std::vector<std::string> names;
        for (const char* place : {"0000:00:09.0", "0000:01:04.0"}) {
            const std::string link = std::string("/sys/bus/pci/devices/") + place + "/driver";
            names.push_back(
                std::filesystem::exists(link) ? std::filesystem::canonical(link).filename().string() : "");
        }
        return names;
    }
};

TEST_F(Ethercat, TakesTheControllerOfTheTranslationFileAndGivesItBack) {
    EXPECT_EQ(kv_translateEthernetInterfaces(), 0);
    EXPECT_EQ(Machine::read(kv::test::kTranslationFile), "eth0:0:Hostlink;eth1:1:ETH1;");
    (void)log_.take();
    const auto before = openFiles();

    EXPECT_EQ(kv_configureEthercat(1), 0);
    EXPECT_THAT(drivers(), ElementsAre("igb", "atemsys_pci"));
    EXPECT_FALSE(std::filesystem::exists("/sys/class/net/eth1"));
    EXPECT_EQ(kv_configureEthercat(0), 0);
    EXPECT_THAT(drivers(), ElementsAre("atemsys_pci", "atemsys_pci"));

    EXPECT_EQ(kv_teardownEthercat(1), 0);
    EXPECT_EQ(kv_teardownEthercat(0), 0);
    EXPECT_THAT(drivers(), ElementsAre("igb", "igb"));
    EXPECT_TRUE(std::filesystem::exists("/sys/class/net/eth1"));
    EXPECT_THAT(log_.take(), IsEmpty());
    EXPECT_EQ(openFiles(), before);
}

TEST_F(Ethercat, RefusesAnIndexBehindTheLastController) {
    for (const unsigned int index : {2U, 3U, UINT32_MAX}) {
        EXPECT_EQ(kv_configureEthercat(index), -1);
        EXPECT_EQ(kv_teardownEthercat(index), -1);
        EXPECT_THAT(
            log_.take(),
            ElementsAre(error("kv_configureEthercat: Requested network device index is out of range"),
                        error("kv_teardownEthercat: Requested network device index is out of range")));
    }
    EXPECT_THAT(drivers(), ElementsAre("igb", "igb"));
}

TEST_F(Ethercat, ReportsWhatCannotBeBoundUnboundOrProbed) {
    Machine::remove("/sys/bus/pci/drivers/atemsys_pci/bind");
    EXPECT_EQ(kv_configureEthercat(0), -1);
    EXPECT_THAT(drivers(), ElementsAre("", "igb"));
    EXPECT_THAT(
        log_.take(),
        ElementsAre(info("Could not open bind file /sys/bus/pci/drivers/atemsys_pci/bind for writing.")));
    Machine::replaceByFolder("/sys/bus/pci/drivers/igb/unbind");
    EXPECT_EQ(kv_teardownEthercat(1), -1);
    EXPECT_THAT(log_.take(),
                ElementsAre(info("kv_pci_unbindDriver: Could not open unbind file /sys/bus/pci/devices/"
                                 "0000:01:04.0/driver/unbind for writing: Is a directory"),
                            error("kv_teardownEthercat: Failed to unbind network device driver")));
    Machine::remove("/sys/bus/pci/drivers_probe");
    EXPECT_EQ(kv_teardownEthercat(0), -1);
    EXPECT_THAT(log_.take(),
                ElementsAre(info("Could not open probe file /sys/bus/pci/drivers_probe for writing.")));
}

TEST_F(Ethercat, FailsWithoutAccessToPci) {
    Machine::remove("/sys/bus/pci/devices");
    EXPECT_EQ(kv_configureEthercat(0), -1);
    EXPECT_EQ(kv_teardownEthercat(0), -1);
    EXPECT_THAT(log_.take(), ElementsAre(error("PCI topology detection failure!"),
                                         error("PCI topology detection failure!")));
}

}  // namespace
