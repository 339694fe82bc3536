// The Ethernet interfaces of the chip, and behind the PCI host the modules of the machine "blaze".

#include <array>
#include <cstdio>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/network.h>

#include "interfaces.h"
#include "support/blaze_ports.h"
#include "support/shell.h"

using kv::test::chipInterfaces;
using kv::test::functionAt;
using kv::test::interfaceOf;
using kv::test::kBlazeModulePorts;
using kv::test::readText;
using kv::test::shell;
using kv::test::translation;
using kv::utils::formatString;

namespace {

using Mac = std::array<unsigned char, KV_MAC_SIZE>;

constexpr const char* kOnboardPorts[] = {"05:00.0", "06:00.0"};

std::string entry(const std::string& interface, int index, const std::string& label) {
    return interface + ":" + std::to_string(index) + ":" + label + ";";
}

/** The names of this target's front, and what is left of them when they are used up. */
std::string onboardName(std::size_t port) {
    constexpr const char* kNames[] = {"Hostlink", "ETH1", "ETH2", "ETH3"};
    return port < std::size(kNames) ? kNames[port] : "Onboard";
}

TEST(EthernetTranslation, PutsTheChipsPortsBeforeThoseOfModules) {
    std::size_t onboard = 0;
    std::string expected;
    for (const std::string& interface : chipInterfaces()) {
        ASSERT_NE(interface, "");
        expected += entry(interface, -1, onboardName(onboard++));
    }
    ASSERT_EQ(onboard, 4U) << "controllers of the chip";
    for (int index = 0; const char* place : kOnboardPorts) {
        ASSERT_NE(interfaceOf(functionAt(place)), "") << place;
        expected += entry(interfaceOf(functionAt(place)), index++, onboardName(onboard++));
    }
    for (const auto& [label, index, place] : kBlazeModulePorts) {
        ASSERT_NE(interfaceOf(functionAt(place)), "") << place;
        expected += entry(interfaceOf(functionAt(place)), index, label);
    }
    ASSERT_EQ(kv_translateEthernetInterfaces(), 0);
    EXPECT_EQ(translation(), expected);
}

/** As the kernel writes it. */
std::string addressText(const Mac& mac) {
    return formatString("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

TEST(HostLink, HasTheAddressOfTheChipsFirstInterface) {
    const std::string interface = chipInterfaces().front();
    const std::string address = readText("/sys/class/net/" + interface + "/address");
    const Mac untouched = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA};
    const struct {
        std::string changes; /**< before it is looked at */
        std::string name;
        std::string address;
    } cases[] = {{"down", interface, address},
                 {"name uplink address 02:00:5e:10:20:30 up", "uplink", "02:00:5e:10:20:30"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.changes);
        const auto changed = shell("ip link set " + interface + " " + each.changes);
        ASSERT_EQ(changed.status, 0) << changed.output;
        ASSERT_EQ(kv_translateEthernetInterfaces(), 0);
        EXPECT_EQ(translation().substr(0, translation().find(';') + 1), entry(each.name, -1, "Hostlink"));
        Mac mac = untouched;
        EXPECT_EQ(kv_target_getHostLinkMac(mac.data()), 0);
        EXPECT_EQ(addressText(mac), each.address);
        EXPECT_EQ(mac[6], 0xAA) << "an Ethernet address has six bytes";
    }
    shell("ip link set uplink down; ip link set uplink address " + address);
    const auto renamed = shell("ip link set uplink name " + interface);
    ASSERT_EQ(renamed.status, 0) << renamed.output;
    Mac mac = untouched;
    EXPECT_EQ(kv_target_getHostLinkMac(mac.data()), -1) << "the file has the old name";
    EXPECT_EQ(mac, untouched);
}

}  // namespace
