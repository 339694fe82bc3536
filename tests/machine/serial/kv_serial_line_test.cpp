#include <array>
#include <fcntl.h>
#include <kvsim/description_reader.h>
#include <poll.h>
#include <random>
#include <termios.h>

#include "line_settings.h"
#include "serial_machine.h"

using kv::test::debug;
using kv::test::error;
using kv::test::kPort1;
using kv::test::lineSettings;
using kvsim::FarEnd;
using kvsim::Machine;
using testing::ElementsAre;

namespace {

constexpr const char* kFarEndOfPort1 = "/run/kvsim/serial/ttyPS0";

constexpr uint32_t kSpeedBits = 0x100f100f;
/** A pseudo-terminal has no line on which parity could be: it does not keep the flag that turns it on. */
constexpr uint32_t kNotKept = 0x100;

class SerialLine : public kv::test::SerialMachine {
 protected:
    void describe(FarEnd farEnd) {
        addOnboardPorts(farEnd);
        addTransmitLines();
    }

    static bool waitFor(int fd, short events) {
        pollfd polled{.fd = fd, .events = events, .revents = 0};
        return ::poll(&polled, 1, 5000) == 1;
    }

    static std::string receive(int fd, std::size_t count) {
        std::string text;
        std::array<char, 4096> block;
        while (text.size() < count && waitFor(fd, POLLIN)) {
            const ssize_t length = ::read(fd, block.data(), std::min(block.size(), count - text.size()));
            if (length <= 0) {
                break;
            }
            text.append(block.data(), static_cast<std::size_t>(length));
        }
        return text;
    }

    /** Sends a text to a far end that echoes it, and receives it meanwhile. */
    static std::string exchange(int fd, std::string_view sent) {
        std::string received;
        const std::size_t expected = sent.size();
        while (received.size() < expected) {
            if (!sent.empty()) {
                const ssize_t count = ::write(fd, sent.data(), std::min(sent.size(), std::size_t{4096}));
                sent.remove_prefix(static_cast<std::size_t>(std::max(count, ssize_t{0})));
            }
            std::array<char, 4096> block;
            if (!waitFor(fd, static_cast<short>(sent.empty() ? POLLIN : POLLIN | POLLOUT))) {
                break;
            }
            const ssize_t count = ::read(fd, block.data(), block.size());
            received.append(block.data(), static_cast<std::size_t>(std::max(count, ssize_t{0})));
        }
        return received;
    }
};

TEST_F(SerialLine, CarriesAMegabyteOnEmberAtACodedAndAtACustomRate) {
    machine_ = Machine(kvsim::readDescription(kvsim::findMachine("ember")));
    ENTER_MACHINE(machine_);
    std::mt19937 random(8);
    std::string sent(1 << 20, '\0');
    std::ranges::generate(sent, [&random] { return static_cast<char>(random()); });
    for (const speed_t rate : {speed_t{B115200}, speed_t{250000}}) {
        ASSERT_EQ(kv_serial_device_config(1, rate, 4, Even, 1, 0), 0);
        const int fd = kv_serial_device_open(1);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(kv_serial_device_set_mode(1, 2), 0);
        EXPECT_EQ(kv_serial_device_set_termination(1, 1), 0);
        EXPECT_TRUE(exchange(fd, sent) == sent) << "at " << rate;
        EXPECT_EQ(kv_serial_device_flush(1, 2), 0);
    }
    EXPECT_EQ(lineSettings(kPort1).outputRate, 250000U);
}

TEST_F(SerialLine, KeepsWhatItIsSetUpTo) {
    describe(FarEnd::None);
    ENTER_MACHINE(machine_);
    const auto before = openFiles();
    const struct {
        speed_t baudrate;
        uint32_t rate;
        parity_bits parity;
        int stopBits;
        int ctsMode;
        uint32_t control;
        uint32_t input;
    } cases[] = {
        {B115200, 115200, Even, 1, 0, 0x9b0, 0x10},
        {B4000000, 4000000, None, 2, 1, 0x800000f0, 0},
        {115200, 115200, Space, 0, 5, 0xc00001b0, 0x10},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(kv_serial_device_config(1, each.baudrate, 4, each.parity, each.stopBits, each.ctsMode), 0);
        EXPECT_EQ(openFiles(), before);  // closed again
        const auto line = lineSettings(kPort1);
        EXPECT_EQ(line.inputRate, each.rate);
        EXPECT_EQ(line.outputRate, each.rate);
        EXPECT_EQ(line.control & ~kSpeedBits, each.control & ~kNotKept);
        EXPECT_EQ(line.input, each.input);
        EXPECT_EQ(line.output, 0x4U);
        EXPECT_EQ(line.local, 0xa30U);
        EXPECT_EQ(line.controlCharacters, 0U);
    }
}

TEST_F(SerialLine, TellsHowItIsSetUp) {
    describe(FarEnd::None);
    ENTER_MACHINE(machine_);
    const int fd = kv_serial_port_open(1, O_RDWR);
    const std::string configured = "[port 1] kv_serial_device_config : fd = " + std::to_string(fd);
    EXPECT_EQ(kv_serial_device_config(1, 13, 4, None, 1, 0), 0);  // a number, not the code B9600
    EXPECT_THAT(log_.take(),
                ElementsAre(debug(configured), debug("[port 1] baud 13, data 4, parity 1, stop 1, cts 0"),
                            debug("ospeed: 13, ispeed: 13"), debug("ret: 0, ospeed: 13, ispeed: 13")));
    EXPECT_EQ(lineSettings(kPort1).outputRate, 13U);

    for (const uint32_t parity : {0U, 6U}) {
        EXPECT_EQ(kv_serial_device_config(1, B115200, 4, static_cast<parity_bits>(parity), 1, 0), -1);
        EXPECT_EQ(log_.take().back(), error("Parity bit is out of bounds"));
    }
    EXPECT_EQ(lineSettings(kPort1).outputRate, 13U);
    EXPECT_EQ(kv_serial_device_close(1), 0);
    EXPECT_EQ(log_.take().back(), debug("[port 1] kv_serial_device_close : fd = -1"));
}

TEST_F(SerialLine, FlushesAndClosesAsItIsAsked) {
    describe(FarEnd::Capture);
    ENTER_MACHINE(machine_);
    ASSERT_EQ(kv_serial_device_config(1, B115200, 4, None, 1, 0), 0);
    const int fd = kv_serial_device_open(1);
    const std::string flushed = "[port 1] kv_serial_device_flush : fd = ";
    const std::string opened = flushed + std::to_string(fd);

    Machine::write(std::string(kFarEndOfPort1) + ".in", "kept");
    EXPECT_EQ(kv_serial_device_flush(1, 0), 0);
    EXPECT_EQ(receive(fd, 4), "kept");
    Machine::write(std::string(kFarEndOfPort1) + ".in", "dropped");
    ASSERT_TRUE(waitFor(fd, POLLIN));
    EXPECT_EQ(kv_serial_device_flush(1, 1), 0);
    char byte = 0;
    EXPECT_EQ(::read(fd, &byte, 1), 0);
    EXPECT_EQ(log_.take().back(), debug(opened));

    EXPECT_EQ(kv_serial_device_flush(1, 4), -1);
    EXPECT_THAT(log_.take(), ElementsAre(error("buffer_fd_behavior 4 not supported")));
    EXPECT_EQ(kv_serial_port_open(1, O_RDWR), fd);
    for (const int behaviour : {2, 3}) {
        const auto whileOpen = openFiles();
        EXPECT_EQ(kv_serial_device_flush(1, behaviour), 0);
        EXPECT_THAT(log_.take(), ElementsAre(debug(flushed + "-1")));
        EXPECT_EQ(openFiles(), whileOpen - 1);
        EXPECT_GE(kv_serial_port_open(1, O_RDWR), 0);
    }
}

TEST_F(SerialLine, CanBeHeardAndSpokenToFromItsFarEnd) {
    describe(FarEnd::Capture);
    ENTER_MACHINE(machine_);
    ASSERT_EQ(kv_serial_device_config(1, B115200, 4, None, 1, 0), 0);
    const int fd = kv_serial_device_open(1);
    const std::string question = std::string("\0\r\n\x03\x11\x7f\xff?", 8);
    ASSERT_EQ(::write(fd, question.data(), question.size()), static_cast<ssize_t>(question.size()));
    const std::string captured = std::string(kFarEndOfPort1) + ".out";
    while (Machine::read(captured).size() < question.size()) {
        ::usleep(1000);
    }
    EXPECT_EQ(Machine::read(captured), question);
    // More than the kernel keeps for a port.
    const std::string answer = question + std::string(200000, '.') + question;
    Machine::write(std::string(kFarEndOfPort1) + ".in", answer);
    EXPECT_TRUE(receive(fd, answer.size()) == answer);
}

}  // namespace
