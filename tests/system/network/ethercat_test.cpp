// A controller goes to the EtherCAT master's driver and comes back. Behind the PCI host is the machine
// "blaze".

#include <climits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/network.h>

#include "interfaces.h"
#include "support/blaze_ports.h"

using kv::test::error;
using kv::test::functionAt;
using kv::test::interfaceOf;
using kv::test::ModulePort;
using kv::test::readText;
using kv::test::translation;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

namespace fs = std::filesystem;

constexpr const char* kMaster = "atemsys_pci";

std::string driverAt(const std::string& place) {
    const fs::path link = functionAt(place) / "driver";
    return fs::exists(link) ? fs::canonical(link).filename().string() : "";
}

/** Marks an interface as ready, as udev does soon after the kernel has made it. */
void markAsReady(const std::string& interface) {
    std::ofstream("/run/udev/data/n" + readText("/sys/class/net/" + interface + "/ifindex")) << "I:1\n";
}

TEST(Ethercat, HasTheControllerOfAPortUntilItGivesItBack) {
    kv::test::LogCapture log;
    const ModulePort port = kv::test::kBlazeModulePorts[1];
    const std::string neighbour = kv::test::kBlazeModulePorts[0].place;
    const std::string networkDriver = driverAt(port.place);
    const std::string interface = interfaceOf(functionAt(port.place));
    ASSERT_NE(interface, "");

    ASSERT_EQ(kv_configureEthercat(static_cast<unsigned>(port.index)), 0);
    EXPECT_EQ(driverAt(port.place), kMaster);
    EXPECT_FALSE(fs::exists("/sys/class/net/" + interface));
    EXPECT_EQ(driverAt(neighbour), networkDriver);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(kv_translateEthernetInterfaces(), 0);
    EXPECT_THAT(translation(), HasSubstr(";:3:NMA_1B;")) << "the connector is there, the interface is not";

    ASSERT_EQ(kv_teardownEthercat(static_cast<unsigned>(port.index)), 0);
    EXPECT_EQ(driverAt(port.place), networkDriver);
    const std::string again = interfaceOf(functionAt(port.place));
    ASSERT_NE(again, "");
    markAsReady(again);
    EXPECT_EQ(kv_translateEthernetInterfaces(), 0);
    EXPECT_THAT(translation(), HasSubstr(";" + again + ":3:NMA_1B;"));
}

// The driver does not know the controllers of an NMH. Those of an NMC have two functions, the first of which
// is meant.
TEST(Ethercat, LeavesAControllerToNobodyWhenTheMasterDoesNotKnowIt) {
    kv::test::LogCapture log;
    const struct {
        unsigned index;
        const char* place;
        const char* other;
    } cases[] = {{27, "2c:00.0", "2d:00.0"}, {8, "12:00.0", "12:00.1"}};
    for (const auto& each : cases) {
        const std::string networkDriver = driverAt(each.place);
        ASSERT_NE(networkDriver, "") << each.place;
        EXPECT_EQ(kv_configureEthercat(each.index), 0);
        EXPECT_EQ(driverAt(each.place), "");
        EXPECT_EQ(driverAt(each.other), networkDriver);
        EXPECT_EQ(kv_teardownEthercat(each.index), 0);
        EXPECT_EQ(driverAt(each.place), networkDriver);
        markAsReady(interfaceOf(functionAt(each.place)));
    }
    EXPECT_THAT(log.take(), IsEmpty());
    for (const unsigned index : {29U, UINT_MAX}) {
        EXPECT_EQ(kv_configureEthercat(index), -1);
        EXPECT_EQ(kv_teardownEthercat(index), -1);
        EXPECT_THAT(
            log.take(),
            ElementsAre(error("kv_configureEthercat: Requested network device index is out of range"),
                        error("kv_teardownEthercat: Requested network device index is out of range")));
    }
}

}  // namespace
