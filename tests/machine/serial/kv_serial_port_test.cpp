#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gpiod.h>
#include <memory>

#include "serial_machine.h"
#include "support/shell.h"
#include "unit/brevane/process.h"

using kv::test::debug;
using kv::test::error;
using kv::test::kPort1;
using kv::test::kPort2;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kOpenedPort1 = "request output 15=1 14=0 onboard_serial\nrelease 15 14\n";
constexpr const char* kOpenedPort2 = "request output 16=1 7=0 onboard_serial\nrelease 16 7\n";

class SerialPorts : public kv::test::SerialMachine {
 protected:
    /** A descriptor is written to the log. */
    static std::string fdText(int fd) { return " : fd = " + std::to_string(fd); }

    static mode_t modeOf(const char* node) {
        struct stat status {};
        return ::stat(node, &status) == 0 ? status.st_mode & 0777 : 0;
    }

    /** Opening fails, leaves no descriptor behind and logs one line. */
    void expectFailure(int port, const std::string& line) {
        const auto before = openFiles();
        EXPECT_EQ(kv_serial_device_open(port), -1);
        EXPECT_THAT(log_.take(), ElementsAre(error(line)));
        EXPECT_EQ(openFiles(), before);
    }
};

TEST_F(SerialPorts, OpenOnceAndSwitchTheTransmitterOn) {
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    Machine::write("/run/kvsim/gpio/gpiochip1/lines/14/value", "1\n");
    const auto before = openFiles();
    const int first = kv_serial_device_open(1);
    ASSERT_GE(first, 3);
    EXPECT_EQ(::fcntl(first, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    EXPECT_THAT(log_.take(), ElementsAre(debug("[port 1] kv_serial_device_open" + fdText(first))));
    EXPECT_EQ(takeHistory(), kOpenedPort1);
    EXPECT_EQ(levels(), "0000000010");
    EXPECT_EQ(Machine::read("/run/kvsim/systemctl"), "stop serial-getty@ttyPS0\n");
    EXPECT_EQ(modeOf(kPort1), 0666U);

    EXPECT_EQ(kv_serial_port_open(1, O_RDONLY), first);
    EXPECT_EQ(takeHistory(), "");

    const int second = kv_serial_port_open(2, O_RDWR);
    EXPECT_EQ(::fcntl(second, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    EXPECT_EQ(takeHistory(), kOpenedPort2);
    EXPECT_EQ(Machine::read("/run/kvsim/systemctl"), "stop serial-getty@ttyPS0\n");  // no console there
    EXPECT_EQ(openFiles(), before + 2);

    EXPECT_EQ(kv_serial_device_close(1), 0);
    EXPECT_EQ(kv_serial_port_close(2), 0);
    EXPECT_EQ(kv_serial_device_close(1), 0);
    EXPECT_THAT(log_.take(), ElementsAre(debug("[port 1] kv_serial_device_close" + fdText(first)),
                                         debug("[port 1] kv_serial_device_close" + fdText(-1))));
    EXPECT_EQ(openFiles(), before);
    EXPECT_EQ(takeHistory(), "");
}

std::atomic<int> stopSignals = 0;

TEST_F(SerialPorts, LetAModelBeStoppedWhileTheirConsoleStops) {
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    Machine::write("/run/kvsim/bin/systemctl", "#!/bin/sh\nkill -INT $MODEL\n");
    ::setenv("MODEL", std::to_string(::getpid()).c_str(), 1);
    ::signal(SIGINT, [](int) { ++stopSignals; });
    EXPECT_GE(kv_serial_device_open(1), 0);
    EXPECT_EQ(stopSignals, 1);
}

TEST_F(SerialPorts, ThatDoNotExistAreRefused) {
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    for (const int port : {0, 7, -1, INT_MAX, INT_MIN}) {
        const std::string number = std::to_string(port);
        expectFailure(port, "[port " + number + "] Port number out of bounds: " + number);
        EXPECT_EQ(kv_serial_device_close(port), 0);
        EXPECT_THAT(log_.take(),
                    ElementsAre(debug("[port " + number + "] kv_serial_device_close : fd = -1")));
    }
    for (int port = 3; port <= 6; ++port) {
        expectFailure(port, "[port " + std::to_string(port) + "] not found device ");
    }
    EXPECT_EQ(kv_serial_device_config(4, B115200, 4, None, 1, 0), -1);
    EXPECT_EQ(kv_serial_device_flush(4, 0), -1);
    EXPECT_EQ(takeHistory(), "");
}

TEST_F(SerialPorts, WithoutTheirDeviceTellWhatIsMissing) {
    addOnboardPorts();
    addTransmitLines();
    addPort("ttyPS2", "0xFF020000");
    ENTER_MACHINE(machine_);
    Machine::remove(kPort1);
    expectFailure(1, "[port 1] Failed to open device /dev/ttyPS0");
    EXPECT_EQ(takeHistory(), kOpenedPort1);
    EXPECT_EQ(kv_serial_device_set_termination(1, 1), 0);  // initialised all the same

    Machine::write("/sys/class/tty/ttyPS1/iomem_base", "0xFF0F0000\n");
    log_.take();
    expectFailure(2, "[port 2] not found device ");
    Machine::write("/sys/class/tty/ttyPS2/iomem_base", "0xFF010000\n");
    expectFailure(2, "Serial device /dev/ttyPS2 not recognized");
}

TEST_F(SerialPorts, WithoutTheirGpioLinesTellWhatIsMissing) {
    addOnboardPorts();
    machine_.addGpioChip({.name = "gpiochip1", .label = "short", .lines = {{5, "SERIAL1_TX_EN"}}});
    ENTER_MACHINE(machine_);
    expectFailure(1, "[port 1] GPIO line SERIAL0_TX_EN not found");
    ASSERT_EQ(::chmod(kPort2, 0600), 0);
    expectFailure(2, "[port 2] GPIO lines of gpiochip1 not available: No such device");
    EXPECT_EQ(modeOf(kPort2), 0600U) << "the second line comes before anything is changed";
    EXPECT_EQ(kv_serial_device_set_mode(1, 1), -1);
    EXPECT_THAT(log_.take(), ElementsAre(error("Serial device not initialized yet")));
    EXPECT_EQ(takeHistory(), "");
}

TEST_F(SerialPorts, ThatWereInitialisedDriveNoLinesOfAChipThatIsGone) {
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    ASSERT_GE(kv_serial_device_open(2), 0);
    EXPECT_EQ(kv_serial_port_close(2), 0);
    takeHistory();
    log_.take();
    Machine::remove("/dev/gpiochip1");
    expectFailure(2, "[port 2] GPIO line SERIAL1_TX_EN not found");
    EXPECT_EQ(kv_serial_device_set_mode(2, 2), -1);
    EXPECT_EQ(kv_serial_device_set_termination(2, 1), -1);
    const auto gone = error("[port 2] GPIO lines of gpiochip1 not available: No such file or directory");
    EXPECT_THAT(log_.take(), ElementsAre(gone, gone)) << "lines are named once they were taken";
    EXPECT_EQ(takeHistory(), "");
}

TEST_F(SerialPorts, AreOpenedAsRootWithTheFlagsThatAreGiven) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "needs root, to become a user who may become root again";
    }
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    std::filesystem::create_directory("/dev/roots");
    std::filesystem::rename(kPort2, "/dev/roots/port");
    std::filesystem::create_symlink("/dev/roots/port", kPort2);
    ASSERT_EQ(::chmod("/dev/roots", 0700), 0);
    ASSERT_EQ(kv::test::shell("chmod -R a+rw /run/kvsim/gpio").status, 0);
    const brevane::test::BorrowableRoot borrowable;
    for (const int flags : {O_RDWR | O_NOCTTY, O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK}) {
        const int fd = kv_serial_port_open(2, flags);
        ASSERT_GE(fd, 0) << testing::PrintToString(log_.take());
        EXPECT_EQ(::fcntl(fd, F_GETFD), (flags & O_CLOEXEC) != 0 ? FD_CLOEXEC : 0);
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), flags & (O_ACCMODE | O_NONBLOCK));
        EXPECT_EQ(kv_serial_port_close(2), 0);
    }
    const int device = kv_serial_device_open(2);
    ASSERT_GE(device, 0) << testing::PrintToString(log_.take());
    EXPECT_EQ(::fcntl(device, F_GETFD), 0);
    EXPECT_EQ(::fcntl(device, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(::geteuid(), brevane::test::kNobody);
}

TEST_F(SerialPorts, LoseTheRaceForALineAfterThoseBeforeItWereDriven) {
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    ASSERT_GE(kv_serial_device_open(2), 0);
    const std::unique_ptr<gpiod_chip, decltype(&gpiod_chip_close)> chip(gpiod_chip_open_by_name("gpiochip1"),
                                                                        gpiod_chip_close);
    gpiod_line_bulk line = GPIOD_LINE_BULK_INITIALIZER;
    gpiod_line_bulk_add(&line, gpiod_chip_get_line(chip.get(), 10));
    const gpiod_line_request_config config = {
        .consumer = "someone_else", .request_type = GPIOD_LINE_REQUEST_DIRECTION_AS_IS, .flags = 0};
    ASSERT_EQ(gpiod_line_request_bulk(&line, &config, nullptr), 0);
    takeHistory();

    EXPECT_EQ(kv_serial_device_set_mode(2, 2), -1);
    EXPECT_EQ(log_.take().back(),
              error("[port 2] GPIO lines of gpiochip1 not available: Device or resource busy"));
    EXPECT_EQ(takeHistory(), "request output 8=1 onboard_serial\nrelease 8\n");
    EXPECT_EQ(levels(), "0100000001");
}

TEST_F(SerialPorts, SwitchTheirTransceivers) {
    addOnboardPorts();
    addTransmitLines();
    ENTER_MACHINE(machine_);
    EXPECT_EQ(kv_serial_device_set_mode(1, 2), -1);
    EXPECT_EQ(kv_serial_device_set_termination(2, 1), -1);
    EXPECT_EQ(kv_serial_device_set_mode(3, 2), -1);
    EXPECT_EQ(kv_serial_device_set_mode(0, 9), -1);
    EXPECT_EQ(kv_serial_device_set_mode(1, 0), -1);
    EXPECT_EQ(kv_serial_device_set_mode(2, 4), -1);
    EXPECT_EQ(kv_serial_device_set_termination(6, 1), -1);
    EXPECT_EQ(kv_serial_device_set_termination(1, 2), -1);
    EXPECT_THAT(
        log_.take(),
        ElementsAre(error("Serial device not initialized yet"), error("Serial device not initialized yet"),
                    error("Port number 3 is not valid"), error("Port number 0 is not valid"),
                    error("Mode number 0 is not valid"), error("Mode number 4 is not valid"),
                    error("Port number 6 is not valid"), error("Termination value must be 0 or 1")));

    ASSERT_GE(kv_serial_device_open(2), 0);  // serves both ports
    const auto before = openFiles();
    takeHistory();
    log_.take();
    EXPECT_EQ(kv_serial_device_set_mode(1, 2), 0);
    EXPECT_EQ(levels(), "0000011001");
    EXPECT_EQ(kv_serial_device_set_mode(1, 3), 0);
    EXPECT_EQ(levels(), "0000001001");
    EXPECT_EQ(kv_serial_device_set_mode(2, 2), 0);
    EXPECT_EQ(levels(), "0101001001");
    EXPECT_EQ(kv_serial_device_set_termination(2, 1), 0);
    EXPECT_EQ(kv_serial_device_set_termination(1, 1), 0);
    EXPECT_EQ(levels(), "0111101001");
    EXPECT_EQ(kv_serial_device_set_mode(2, 1), 0);
    EXPECT_EQ(kv_serial_device_set_mode(1, 1), 0);
    EXPECT_EQ(kv_serial_device_set_termination(2, 0), 0);
    EXPECT_EQ(levels(), "0000100001");
    EXPECT_EQ(takeHistory(),
              "request output 13=1 12=1 onboard_serial\nrelease 13 12\n"
              "request output 13=1 12=0 onboard_serial\nrelease 13 12\n"
              "request output 8=1 10=1 onboard_serial\nrelease 8 10\n"
              "request output 9=1 onboard_serial\nrelease 9\n"
              "request output 11=1 onboard_serial\nrelease 11\n"
              "request output 8=0 10=0 onboard_serial\nrelease 8 10\n"
              "request output 13=0 12=0 onboard_serial\nrelease 13 12\n"
              "request output 9=0 onboard_serial\nrelease 9\n");
    const auto records = log_.take();
    ASSERT_EQ(records.size(), 13U);
    EXPECT_THAT(std::vector(records.begin(), records.begin() + 2),
                ElementsAre(debug("RS485 line: 13"), debug("Half-duplex line: 12")));
    EXPECT_THAT(std::vector(records.begin() + 4, records.begin() + 8),
                ElementsAre(debug("RS485 line: 8"), debug("Half-duplex line: 10"),
                            debug("Termination line: 9"), debug("Termination line: 11")));
    EXPECT_EQ(openFiles(), before);
}

TEST_F(SerialPorts, OfStartedProgramsReachTheMachinesGpioToo) {
    ENTER_MACHINE(machine_);
    const auto libraries = kv::test::shell("ldd '" KV_LIBRARY "' | grep 'libgpiod\\.so'");
    EXPECT_THAT(libraries.output, testing::HasSubstr("/kvsim/libgpiod.so.2 "));
}

}  // namespace
