#include <cerrno>
#include <filesystem>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "os/unique_fd.h"
#include "support/machine_test.h"

namespace {

using kvsim::Machine;
using std::filesystem::exists;
using testing::StartsWith;

const std::string kDrivers = "/sys/bus/pci/drivers/";
constexpr const char* kProbe = "/sys/bus/pci/drivers_probe";

/** @return 0 or an error number */
int write(const std::string& path, const std::string& text) {
    const kv::os::UniqueFd file = kv::os::openFile(path, O_WRONLY);
    return ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
}

/** The driver that a function's link leads to; empty where it has none. */
std::string driverOf(const std::string& function) {
    const auto link = std::filesystem::path("/sys/bus/pci/devices") / function / "driver";
    return exists(link) ? std::filesystem::canonical(link).filename().string() : "";
}

/** A network controller and its twin that nobody holds, a board with an interrupt and one without. */
class PciBus : public testing::Test {
 protected:
    void SetUp() override {
        ::alarm(20);
        machine_.addBridge({.slot = 1}, 1);
        machine_.addPciFunction({.bus = 1, .slot = 0, .vendor = 0x8086, .device = 0x1533, .irq = 41})
            .driver("igb")
            .networkInterface("eth0")
            .serialPort("ttyS4");
        machine_.addPciFunction({.bus = 1, .slot = 1, .vendor = 0x8086, .device = 0x1533})
            .networkInterface("eth1");
        machine_.addPciFunction({.bus = 1, .slot = 2, .vendor = 0x1b5a, .device = 0x0100, .irq = 42});
        machine_.addPciFunction({.bus = 1, .slot = 3, .vendor = 0x1b5a, .device = 0x0100});
        machine_.addPciFunction({.bus = 1, .slot = 4, .vendor = 0x1b5a, .device = 0x0100, .irq = 43});
        machine_.addPciDriver("atemsys_pci", {{0x8086, 0x1533}});
        machine_.addPciDriver("uio_kelvaro");
        machine_.addAxiDevice({.name = "pwm", .irq = 0, .maps = {}});
    }

    Machine machine_;
};

TEST_F(PciBus, AnswersWritesAsTheKernelDoes) {
    ENTER_MACHINE(machine_);
    const struct {
        const char* file;
        const char* text;
        int error;
        const char* function;
        const char* driver; /**< that holds the function afterwards */
    } kSteps[] = {
        {"igb/bind", "0000:01:09.0", ENODEV, "0000:01:00.0", "igb"},
        {"igb/bind", "0000:01:02.0", ENODEV, "0000:01:02.0", ""},
        {"igb/bind", "0000:01:00.0", EBUSY, "0000:01:00.0", "igb"},
        {"igb/unbind", "0000:01:01.0", ENODEV, "0000:01:01.0", ""},
        {"atemsys_pci/unbind", "0000:01:00.0", ENODEV, "0000:01:00.0", "igb"},
        {"atemsys_pci/bind", "0000:01:00.0", EBUSY, "0000:01:00.0", "igb"},
        {"atemsys_pci/bind", "0000:01:01.0\n", 0, "0000:01:01.0", "atemsys_pci"},
        {"atemsys_pci/unbind", "0000:01:01.0\n", 0, "0000:01:01.0", ""},
        {"../drivers_probe", "0000:01:01.0", 0, "0000:01:01.0", "igb"},
        {"../drivers_probe", "0000:01:01.0", 0, "0000:01:01.0", "igb"},
        {"../drivers_probe", "0000:01:02.0", 0, "0000:01:02.0", ""},
        {"../drivers_probe", "no address", ENODEV, "0000:01:02.0", ""},
        {"atemsys_pci/new_id", "8086 1533", EEXIST, "0000:01:00.0", "igb"},
        {"atemsys_pci/remove_id", "8086 1533", ENODEV, "0000:01:00.0", "igb"},
        {"uio_kelvaro/new_id", "1b5a", EINVAL, "0000:01:02.0", ""},
        {"uio_kelvaro/new_id", "1b5a  100 7777 1", 0, "0000:01:02.0", ""},
        {"uio_kelvaro/new_id", "1b5a  100", 0, "0000:01:02.0", "uio_kelvaro"},
        {"uio_kelvaro/new_id", "1b5a  100", EEXIST, "0000:01:04.0", "uio_kelvaro"},
        {"uio_kelvaro/bind", "0000:01:03.0", ENODEV, "0000:01:03.0", ""},
        {"uio_kelvaro/unbind", "0000:01:02.0", 0, "0000:01:02.0", ""},
        {"uio_kelvaro/remove_id", "1b5a 100", 0, "0000:01:04.0", "uio_kelvaro"},
        {"uio_kelvaro/remove_id", "1b5a 100", 0, "0000:01:04.0", "uio_kelvaro"},
        {"uio_kelvaro/remove_id", "1b5a 100", ENODEV, "0000:01:04.0", "uio_kelvaro"},
        {"uio_kelvaro/bind", "0000:01:02.0", ENODEV, "0000:01:02.0", ""},
        {"pcieport/unbind", "0000:00:01.0", 0, "0000:00:01.0", ""},
        {"../drivers_probe", "0000:00:01.0", 0, "0000:00:01.0", "pcieport"},
    };
    for (const auto& step : kSteps) {
        SCOPED_TRACE(std::string(step.text) + " to " + step.file);
        EXPECT_EQ(write(kDrivers + step.file, step.text), step.error);
        EXPECT_EQ(driverOf(step.function), step.driver);
        EXPECT_EQ(exists(kDrivers + step.driver + "/" + step.function), *step.driver != '\0');
    }
}

TEST_F(PciBus, ShowsWhatADriverMakesOfAFunctionWhileItHoldsIt) {
    ENTER_MACHINE(machine_);
    const auto controller = machine_.pci(1, 0);
    const std::string uevent = controller.path() + "/uevent";
    const auto expectOwnDevices = [&](bool there) {
        for (const std::string& path :
             {std::string("/sys/class/net/eth0"), std::string("/sys/class/tty/ttyS4"),
              std::string("/run/udev/data/n2"), std::string("/sys/dev/char/4:64"), controller.path() + "/net",
              controller.path() + "/tty/ttyS4", std::string("/proc/irq/41/igb")}) {
            EXPECT_EQ(exists(path), there) << path;
        }
    };
    expectOwnDevices(true);
    EXPECT_EQ(write(kDrivers + "igb/unbind", "0000:01:00.0"), 0);
    expectOwnDevices(false);
    EXPECT_THAT(Machine::read(uevent), StartsWith("PCI_CLASS="));
    EXPECT_EQ(Machine::read(controller.path() + "/enable"), "0\n");
    EXPECT_EQ(controller.config16(4), 0x0002) << "no bus master";

    EXPECT_EQ(write(kDrivers + "atemsys_pci/bind", "0000:01:00.0"), 0);
    expectOwnDevices(false);
    EXPECT_TRUE(exists("/proc/irq/41/atemsys_pci"));
    EXPECT_THAT(Machine::read(uevent), StartsWith("DRIVER=atemsys_pci\nPCI_CLASS="));
    EXPECT_EQ(Machine::read(controller.path() + "/enable"), "1\n");

    EXPECT_EQ(write(kDrivers + "atemsys_pci/unbind", "0000:01:00.0"), 0);
    EXPECT_EQ(write(kProbe, "0000:01:00.0"), 0);
    expectOwnDevices(true);
    EXPECT_THAT(Machine::read(uevent), StartsWith("DRIVER=igb\n"));
    EXPECT_EQ(Machine::read("/sys/class/net/eth0/ifindex"), "2\n");
    EXPECT_TRUE(exists("/sys/class/net/eth1")) << "no driver has made it, none takes it away";
}

TEST_F(PciBus, CountsWhoHasEnabledAFunction) {
    ENTER_MACHINE(machine_);
    const auto board = machine_.pci(1, 2);
    const std::string enable = board.path() + "/enable";
    EXPECT_EQ(write(enable, "on"), EINVAL);
    EXPECT_EQ(write(enable, "0"), EIO) << "it is off";
    EXPECT_EQ(write(enable, "1"), 0);
    EXPECT_EQ(Machine::read(board.path() + "/irq"), "0\n") << "no driver has been there";
    board.setConfig16(4, 0x0406);
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/new_id", "1b5a 0100"), 0);
    EXPECT_EQ(Machine::read(enable), "2\n");
    EXPECT_EQ(write(enable, "0"), EBUSY) << "the driver's";
    EXPECT_NE(Machine::read(board.path() + "/irq"), "0\n");
    EXPECT_EQ(board.config16(4), 0x0406) << "enabled already: the kernel leaves the register alone";
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/unbind", "0000:01:02.0"), 0);
    EXPECT_EQ(Machine::read(enable), "1\n");
    EXPECT_EQ(board.config16(4), 0x0406) << "and in use";
}

TEST_F(PciBus, ShowsTheFirstHandlerOfANameOnALine) {
    for (const std::uint8_t slot : {std::uint8_t{5}, std::uint8_t{6}}) {
        machine_.addPciFunction({.bus = 1, .slot = slot, .vendor = 0x1b5a, .device = 0x0200, .irq = 44});
    }
    ENTER_MACHINE(machine_);
    const std::string handler = "/proc/irq/44/uio_kelvaro";
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/new_id", "1b5a 0200"), 0);
    EXPECT_TRUE(exists(handler));
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/unbind", "0000:01:06.0"), 0);
    EXPECT_TRUE(exists(handler));
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/bind", "0000:01:06.0"), 0);
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/unbind", "0000:01:05.0"), 0);
    EXPECT_FALSE(exists(handler)) << "though the other's is there still";
}

TEST_F(PciBus, GivesUioDevicesTheLowestFreeNumbers) {
    ENTER_MACHINE(machine_);
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/new_id", "1b5a 0100"), 0);
    const std::string first = machine_.pci(1, 2).path();
    const std::string second = machine_.pci(1, 4).path();
    EXPECT_TRUE(exists(first + "/uio/uio1/device/vendor"));
    EXPECT_EQ(Machine::read("/sys/class/uio/uio2/name"), "uio_kelvaro\n");
    EXPECT_TRUE(std::filesystem::equivalent("/sys/class/uio/uio2/device", second));

    EXPECT_EQ(write(kDrivers + "uio_kelvaro/unbind", "0000:01:02.0"), 0);
    for (const std::string& path : {first + "/uio", first + "/fix", std::string("/sys/class/uio/uio1"),
                                    std::string("/dev/uio1"), std::string("/run/udev/data/c243:1")}) {
        EXPECT_FALSE(exists(std::filesystem::symlink_status(path))) << path;
    }
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/unbind", "0000:01:04.0"), 0);
    EXPECT_EQ(write(kDrivers + "uio_kelvaro/bind", "0000:01:04.0"), 0);
    EXPECT_TRUE(exists(second + "/uio/uio1"));

    std::filesystem::permissions("/dev/uio1", std::filesystem::perms{0666});
    EXPECT_EQ(std::filesystem::status("/dev/uio1").permissions(), std::filesystem::perms{0666});
}

TEST_F(PciBus, LivesOnWhereAProgramHasBrokenItsFiles) {
    ENTER_MACHINE(machine_);
    EXPECT_EQ(write(kDrivers + "igb/unbind", "0000:01:00.0"), 0);
    Machine::remove("/sys/class/net");
    Machine::write("/sys/class/net", "");
    EXPECT_EQ(write(kProbe, "0000:01:00.0"), EIO);
    Machine::remove("/sys/class/net");
    EXPECT_EQ(write(kProbe, "0000:01:00.0"), 0);
    EXPECT_TRUE(exists("/sys/class/net/eth0/ifindex"));
}

TEST_F(PciBus, KeepsAConfigurationSpaceOfTheDescribedSize) {
    ENTER_MACHINE(machine_);
    const auto board = machine_.pci(1, 2);
    const std::string path = board.path() + "/config";
    EXPECT_EQ(std::filesystem::file_size(path), 256U);
    EXPECT_EQ(Machine::read(path).substr(0, 4), std::string("\x5a\x1b\x00\x01", 4));
    board.setConfig32(0x3c, 0xA1B2C3D4);
    EXPECT_EQ(board.config8(0x3d), 0xC3);

    const kv::os::UniqueFd file = kv::os::openFile(path, O_RDWR);
    char bytes[8] = {1, 2, 3, 4};
    EXPECT_EQ(::pwrite(file.get(), bytes, 4, 254), 2);
    EXPECT_EQ(::pread(file.get(), bytes, 8, 253), 3);
    EXPECT_EQ(bytes[2], 2);
    EXPECT_EQ(::pread(file.get(), bytes, 1, 256), 0);
    EXPECT_EQ(::pwrite(file.get(), bytes, 1, 256), -1);
    EXPECT_EQ(errno, EFBIG);
}

}  // namespace
