#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <poll.h>
#include <random>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "machine/serial/line_settings.h"
#include "support/child_process.h"
#include "support/log_capture.h"

using kv::test::debug;
using kv::test::LineSettings;
using kv::test::lineSettings;
using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr int kPort = 2;
constexpr const char* kNode = "/dev/ttyPS1";
constexpr uint32_t kSpeedBits = CBAUD | CBAUDEX | CBAUD << 16;  // of both directions

/** Port 2, whose far end answers every byte with its complement. */
class SerialLine : public testing::Test {
 protected:
    SerialLine() {
        (void)kv_serial_device_open(kPort);  // this way no setting of an earlier test can hold the port up
        (void)kv_serial_device_config(kPort, B115200, 4, None, 1, 0);
        log_.take();
    }

    static bool waitFor(int fd, short events) {
        pollfd polled{.fd = fd, .events = events, .revents = 0};
        return ::poll(&polled, 1, 5000) == 1;
    }

    /** Bytes that wait to be sent. */
    static int queued(int fd) {
        int count = -1;
        ::ioctl(fd, TIOCOUTQ, &count);
        return count;
    }

    static bool waitForInput(int fd, int count) {
        int waiting = 0;
        for (int tries = 0; waiting != count && tries < 500; ++tries) {
            ::usleep(10'000);
            ::ioctl(fd, FIONREAD, &waiting);
        }
        return waiting == count;
    }

    /** Sends all that is left of a text and receives meanwhile. */
    static std::string exchange(int fd, std::string_view sent) {
        const std::size_t expected = sent.size();
        std::string received;
        std::array<char, 4096> block;
        while (received.size() < expected &&
               waitFor(fd, static_cast<short>(sent.empty() ? POLLIN : POLLIN | POLLOUT))) {
            const ssize_t written = sent.empty() ? 0 : ::write(fd, sent.data(), sent.size());
            sent.remove_prefix(static_cast<std::size_t>(std::max(written, ssize_t{0})));
            const ssize_t count = ::read(fd, block.data(), block.size());
            received.append(block.data(), static_cast<std::size_t>(std::max(count, ssize_t{0})));
        }
        return received;
    }

    /** Whether a process comes to where the kernel lets it wait for a port's carrier. */
    static bool waitsForACarrier(pid_t process) {
        std::string place;
        for (int tries = 0; place != "tty_port_block_til_ready" && tries < 500; ++tries) {
            ::usleep(10'000);
            std::ifstream("/proc/" + std::to_string(process) + "/wchan") >> place;
        }
        return place == "tty_port_block_til_ready";
    }

    /** Every value a byte can have, and noise. */
    static std::string bytes() {
        std::mt19937 random(2);
        std::string text(5000, '\0');
        std::ranges::generate(text, [&random] { return static_cast<char>(random()); });
        for (int value = 0; value < 256; ++value) {
            text[static_cast<std::size_t>(value)] = static_cast<char>(value);
        }
        return text;
    }

    static std::string complement(std::string text) {
        std::ranges::transform(text, text.begin(), [](char each) { return static_cast<char>(~each); });
        return text;
    }

    kv::test::LogCapture log_;
};

TEST_F(SerialLine, IsFoundByTheAddressThatTheKernelGivesItsUart) {
    std::map<std::string, std::string> nodes;
    for (const auto& tty : std::filesystem::directory_iterator("/sys/class/tty")) {
        std::string address;
        if (std::ifstream(tty.path() / "iomem_base") >> address && address != "0x0") {
            std::array<char, 20> node{};
            EXPECT_EQ(kv_findSerialDeviceByPort(static_cast<uint32_t>(std::stoul(address, nullptr, 16)),
                                                node.data(), node.size()),
                      0)
                << address;
            EXPECT_EQ(node.data(), "/dev" / tty.path().filename());
            nodes[address] = node.data();
        }
    }
    EXPECT_THAT(nodes, ElementsAre(Pair("0xFF000000", "/dev/ttyPS0"), Pair("0xFF010000", kNode)));
}

TEST_F(SerialLine, CarriesEveryByteAtWhateverItIsSetUpTo) {
    const struct {
        speed_t baudrate;
        uint32_t rate;
        int dataBits;
        parity_bits parity;
        int stopBits;
        uint32_t control; /**< as it is kept, without the speed */
    } cases[] = {
        {B115200, 115200, 4, None, 1, 0x8b0},
        {B57600, 57600, 3, Even, 2, 0x9e0},
        {B4000000, 4000000, 2, Odd, 1, 0xb90},
        {250000, 250000, 4, Mark, 2, 0x40000bf0},
        {31250, 31250, 3, Space, 1, 0x400009a0},
        {9600, 9600, 1, Even, 1, 0x9b0},  // the UART has no characters of 5 bits, and gives 8
    };
    const std::string sent = bytes();
    for (const auto& each : cases) {
        SCOPED_TRACE(each.rate);
        ASSERT_EQ(kv_serial_device_config(kPort, each.baudrate, each.dataBits, each.parity, each.stopBits, 0),
                  0);
        const LineSettings line = lineSettings(kNode);
        EXPECT_NEAR(line.outputRate, each.rate, each.rate / 50.0);  // what the UART's divider can make
        EXPECT_EQ(line.inputRate, line.outputRate);
        EXPECT_EQ(line.control & ~kSpeedBits, each.control);
        EXPECT_EQ(line.input, each.parity == None ? 0 : 0x10);
        EXPECT_EQ(line.output, 0x4);
        EXPECT_EQ(line.local, 0xa30);
        EXPECT_EQ(line.controlCharacters, 0);

        const int fd = kv_serial_device_open(kPort);
        ASSERT_GE(fd, 0);
        EXPECT_TRUE(exchange(fd, sent) == complement(sent));
        EXPECT_EQ(kv_serial_device_flush(kPort, 2), 0);
    }
}

TEST_F(SerialLine, KeepsOrDropsWhatIsQueued) {
    const int fd = kv_serial_device_open(kPort);
    ASSERT_EQ(::write(fd, "kept", 4), 4);
    EXPECT_EQ(kv_serial_device_flush(kPort, 0), 0);
    EXPECT_EQ(queued(fd), 0);
    ASSERT_TRUE(waitForInput(fd, 4));
    EXPECT_EQ(kv_serial_device_flush(kPort, 0), 0);
    EXPECT_TRUE(waitForInput(fd, 4));

    EXPECT_EQ(kv_serial_device_flush(kPort, 1), 0);
    char byte = 0;
    EXPECT_EQ(::read(fd, &byte, 1), 0);  // nothing left, and no waiting
    EXPECT_EQ(exchange(fd, "on"), complement("on"));

    ASSERT_EQ(::write(fd, "unread", 6), 6);
    ASSERT_TRUE(waitForInput(fd, 6));
    EXPECT_EQ(kv_serial_device_flush(kPort, 2), 0);
    EXPECT_EQ(exchange(kv_serial_device_open(kPort), "new"), complement("new"));

    log_.take();
    EXPECT_EQ(kv_serial_device_flush(kPort, 3), 0);
    EXPECT_THAT(log_.take(), ElementsAre(debug("[port 2] kv_serial_device_flush : fd = -1")));
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

TEST_F(SerialLine, WaitsForItsFarEndWithFlowControl) {
    ASSERT_EQ(kv_serial_device_config(kPort, B115200, 4, None, 1, 1), 0);
    EXPECT_EQ(lineSettings(kNode).control & ~kSpeedBits, 0x800000b0);
    const int fd = kv_serial_device_open(kPort);
    int modemLines = 0;
    ASSERT_EQ(::ioctl(fd, TIOCMGET, &modemLines), 0);
    ASSERT_EQ(modemLines & (TIOCM_RTS | TIOCM_CTS), TIOCM_RTS) << "the far end is never ready";
    ASSERT_EQ(::write(fd, "held", 4), 4);
    ::usleep(200'000);
    EXPECT_EQ(queued(fd), 4);

    EXPECT_EQ(kv_serial_device_flush(kPort, 3), 0);
    const pid_t child = kv::test::startChild([] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        kv_serial_device_config(kPort, B115200, 4, None, 1, 0);
    });
    EXPECT_TRUE(waitsForACarrier(child));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);

    EXPECT_GE(kv_serial_device_open(kPort), 0);  // does not wait for one
    ASSERT_EQ(kv_serial_device_config(kPort, B115200, 4, None, 1, 0), 0);
    EXPECT_EQ(exchange(kv_serial_device_open(kPort), "sent"), complement("sent"));
}

}  // namespace
