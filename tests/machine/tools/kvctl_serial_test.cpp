#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_kvctl.h"

using kv::test::kvctl;
using kv::test::kvctlJson;
using kv::test::Outcome;
using kvsim::Machine;
using nlohmann::json;

namespace {

json onboardPort(int number, const std::string& uart) {
    return {{"port", number},
            {"uart", uart},
            {"pciAddress", nullptr},
            {"node", "/dev/ttyPS" + std::to_string(number - 1)},
            {"state", "present"}};
}

TEST(KvctlSerial, ShowsTheOnboardPorts) {
    Machine machine = kv::test::machineNamed("bare");
    ENTER_MACHINE(machine);
    const Outcome shown = kvctl("serial");
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.output,
              "hardware         port  node         state\n"
              "UART 0xff000000  1     /dev/ttyPS0  present\n"
              "UART 0xff010000  2     /dev/ttyPS1  present\n");
    EXPECT_EQ(kvctlJson("serial"), json({onboardPort(1, "0xff000000"), onboardPort(2, "0xff010000")}));
}

TEST(KvctlSerial, ShowsThePortsOfACardInTheOrderOfTheirNumbers) {
    Machine machine = kv::test::machineNamed("blaze");
    ENTER_MACHINE(machine);
    const json ports = kvctlJson("serial");
    ASSERT_EQ(ports.size(), 2U + 16U);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(ports[static_cast<std::size_t>(i) + 2], json({{"port", i},
                                                                {"uart", nullptr},
                                                                {"pciAddress", "2e:00.0"},
                                                                {"node", "/dev/ttyRP" + std::to_string(i)},
                                                                {"state", "present"}}));
    }
}

TEST(KvctlSerial, ShowsTheOtherCardsBesideOneWithAnOddPort) {
    Machine machine;
    for (const auto& [slot, port] : {std::pair(3, "ttyRP0"), {4, "ttyRP99999999999"}, {5, "ttyRP1"}}) {
        machine.addPciFunction({.slot = static_cast<uint8_t>(slot), .vendor = 0x11fe, .classCode = 0x070002})
            .serialPort(port)
            .serialPort("ttyRP" + std::to_string(slot));
    }
    ENTER_MACHINE(machine);
    const Outcome shown = kvctl("serial");
    EXPECT_EQ(shown.status, 1);
    EXPECT_THAT(shown.output,
                testing::HasSubstr("kvctl: /sys/bus/pci/devices/0000:00:04.0: the number in a port's "
                                   "name is too large\n"));
    EXPECT_THAT(shown.output, testing::HasSubstr("PCI 00:03.0      0     /dev/ttyRP0  "));
    EXPECT_THAT(shown.output, testing::HasSubstr("PCI 00:04.0      -     -            not found\n"));
    EXPECT_THAT(shown.output, testing::HasSubstr("PCI 00:05.0      0     /dev/ttyRP1  "));
}

TEST(KvctlSerial, TellsWhatIsMissing) {
    Machine machine;
    machine.addPlatformDevice(
        {.name = "axi/ff000000.serial",
         .classDevices = {
             {.className = "tty", .name = "ttyPS0", .attributes = {{"iomem_base", "0xFF000000\n"}}}}});
    machine.addPciFunction({.slot = 3, .vendor = 0x11fe, .device = 0x63, .classCode = 0x070002});
    ENTER_MACHINE(machine);
    const Outcome missing = kvctl("serial");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(
        missing.output,
        "kvctl: /dev/ttyPS0: No such file or directory\n"
        "kvctl: /sys/class/tty: no device has the UART of port 2 (iomem_base 0xFF010000)\n"
        "kvctl: /sys/bus/pci/devices/0000:00:03.0: this serial card has no ports; does a driver hold it?\n"
        "hardware         port  node         state\n"
        "UART 0xff000000  1     /dev/ttyPS0  node missing\n"
        "UART 0xff010000  2     -            not found\n"
        "PCI 00:03.0      -     -            not found\n");

    Machine::write("/dev/ttyPS0", "");
    EXPECT_THAT(kvctl("serial").output,
                testing::HasSubstr("kvctl: /dev/ttyPS0: this is no character device\n"));
    Machine::remove("/sys/bus/pci/devices");
    const Outcome withoutPci = kvctl("serial");
    EXPECT_EQ(withoutPci.status, 1);
    EXPECT_THAT(withoutPci.output,
                testing::HasSubstr("kvctl: /sys/bus/pci/devices: this machine offers no access to PCI\n"));
}

}  // namespace
