#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "support/log_capture.h"

#include <gpiod.hpp>

using kv::test::error;

namespace {

constexpr const char* kHistory = "/sys/kernel/debug/kv_gpio/history";
constexpr const char* kLines = "/sys/kernel/debug/kv_gpio/lines";

std::string read(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write(const char* path, const std::string& text) {
    std::ofstream(path) << text;
}

/** Port 1 is the guest's console: it is opened here, but not set up. */
class GpioLines : public testing::Test {
 protected:
    GpioLines() {
        for (const gpiod::line& line : gpiod::line_iter(gpiod::find_line("SERIAL0_TX_EN").get_chip())) {
            line.request({"reset", gpiod::line_request::DIRECTION_OUTPUT, {}}, 0);
            line.release();
        }
        takeHistory();
    }

    /** What the chip did since the last call, a step a line. */
    static std::string takeHistory() {
        const std::string history = read(kHistory);
        write(kHistory, "\n");
        return history;
    }

    /** Levels of lines 7 to 16, the higher the offset the later. */
    static std::string levels() { return read(kLines).substr(7, 10); }

    /** What the kernel does for one call of the library: each line is had and driven before the next. */
    static std::string steps(const std::string& first, const std::string& second = {}) {
        std::string text;
        std::string freed;
        for (const std::string& each : {first, second}) {
            if (!each.empty()) {
                const std::string offset = each.substr(0, each.find('='));
                text += "request " + offset + " onboard_serial\noutput " + each + "\n";
                freed += "free " + offset + "\n";
            }
        }
        return text + freed;
    }

    kv::test::LogCapture log_;
};

TEST_F(GpioLines, AreDrivenByOpeningAPort) {
    write("/bin/systemctl", "#!/bin/sh\necho \"$@\" >>/run/systemctl\n");
    std::filesystem::permissions("/bin/systemctl", std::filesystem::perms{0755});
    std::filesystem::remove("/run/systemctl");
    std::filesystem::permissions("/dev/ttyPS1", std::filesystem::perms{0600});

    const int second = kv_serial_device_open(2);
    ASSERT_GE(second, 0);
    EXPECT_EQ(takeHistory(), steps("16=1", "7=0"));
    EXPECT_EQ(levels(), "0000000001");
    struct stat node {};
    ASSERT_EQ(::stat("/dev/ttyPS1", &node), 0);
    EXPECT_EQ(node.st_mode & 0777, 0666);
    EXPECT_FALSE(std::filesystem::exists("/run/systemctl"));

    EXPECT_GE(kv_serial_port_open(1, O_RDWR | O_NOCTTY), 0);
    EXPECT_EQ(takeHistory(), steps("15=1", "14=0"));
    EXPECT_EQ(levels(), "0000000011");
    EXPECT_EQ(read("/run/systemctl"), "stop serial-getty@ttyPS0\n");

    EXPECT_EQ(kv_serial_device_open(2), second);
    EXPECT_EQ(kv_serial_device_close(2), 0);
    EXPECT_EQ(kv_serial_device_close(1), 0);
    EXPECT_EQ(takeHistory(), "");
    EXPECT_EQ(levels(), "0000000011");
}

TEST_F(GpioLines, AreDrivenByModeAndTermination) {
    EXPECT_EQ(kv_serial_device_set_mode(2, 2), -1);
    EXPECT_EQ(kv_serial_device_set_termination(2, 1), -1);
    EXPECT_EQ(takeHistory(), "");
    ASSERT_GE(kv_serial_device_open(2), 0);
    takeHistory();

    const struct {
        int (*set)(int port, int value);
        int port;
        int value;
        std::string history;
        std::string levels;
    } cases[] = {
        {kv_serial_device_set_mode, 1, 2, steps("13=1", "12=1"), "0000011001"},
        {kv_serial_device_set_mode, 1, 3, steps("13=1", "12=0"), "0000001001"},
        {kv_serial_device_set_mode, 2, 2, steps("8=1", "10=1"), "0101001001"},
        {kv_serial_device_set_termination, 2, 1, steps("9=1"), "0111001001"},
        {kv_serial_device_set_termination, 1, 1, steps("11=1"), "0111101001"},
        {kv_serial_device_set_mode, 2, 3, steps("8=1", "10=0"), "0110101001"},
        {kv_serial_device_set_mode, 2, 1, steps("8=0", "10=0"), "0010101001"},
        {kv_serial_device_set_mode, 1, 1, steps("13=0", "12=0"), "0010100001"},
        {kv_serial_device_set_termination, 2, 0, steps("9=0"), "0000100001"},
        {kv_serial_device_set_termination, 1, 0, steps("11=0"), "0000000001"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(each.set(each.port, each.value), 0);
        EXPECT_EQ(takeHistory(), each.history);
        EXPECT_EQ(levels(), each.levels);
    }
}

TEST_F(GpioLines, ThatSomeoneElseHoldsAreLeftToHim) {
    ASSERT_GE(kv_serial_device_open(2), 0);
    ASSERT_EQ(kv_serial_device_close(2), 0);
    const gpiod::chip chip = gpiod::find_line("SERIAL1_HALF_DUPLEX").get_chip();
    const gpiod::line line = chip.get_line(10);
    line.request({"someone_else", gpiod::line_request::DIRECTION_OUTPUT, {}}, 0);
    takeHistory();
    log_.take();

    EXPECT_EQ(kv_serial_device_set_mode(2, 2), -1);
    EXPECT_EQ(log_.take().back(),
              error("[port 2] GPIO lines of " + chip.name() + " not available: Device or resource busy"));
    // The kernel drives the first line before it looks at the second one.
    EXPECT_EQ(takeHistory(), "request 8 onboard_serial\noutput 8=1\nfree 8\n");
    EXPECT_EQ(levels(), "0100000001");

    line.release();
    takeHistory();
    EXPECT_EQ(kv_serial_device_set_mode(2, 2), 0);
    EXPECT_EQ(takeHistory(), steps("8=1", "10=1"));
}

}  // namespace
