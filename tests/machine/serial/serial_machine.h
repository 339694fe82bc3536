#pragma once

#include <filesystem>
#include <iterator>
#include <kvsim/machine.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/serial.h>

#include "support/log_capture.h"
#include "support/machine_test.h"

namespace kv::test {

constexpr const char* kPort1 = "/dev/ttyPS0";
constexpr const char* kPort2 = "/dev/ttyPS1";

/** A machine with the two onboard ports, whose GPIO lines are on the second of its chips. */
class SerialMachine : public testing::Test {
 protected:
    SerialMachine() {
        ::alarm(30);
        machine_.addGpioChip({.name = "gpiochip0", .label = "other", .lines = {{3, "LED"}}});
    }

    void addPort(const std::string& name, const std::string& address,
                 std::optional<kvsim::FarEnd> farEnd = kvsim::FarEnd::Echo) {
        machine_.addPlatformDevice({.name = name + ".serial",
                                    .classDevices = {{.className = "tty",
                                                      .name = name,
                                                      .attributes = {{"iomem_base", address + "\n"}},
                                                      .terminal = farEnd}}});
    }

    void addOnboardPorts(kvsim::FarEnd farEnd = kvsim::FarEnd::Echo) {
        addPort("ttyPS0", "0xFF000000", farEnd);
        addPort("ttyPS1", "0xFF010000", farEnd);
    }

    void addTransmitLines() {
        machine_.addGpioChip({.name = "gpiochip1",
                              .label = "serial",
                              .lines = {{15, "SERIAL0_TX_EN"}, {16, "SERIAL1_TX_EN"}}});
    }

    /** What was done with the chip's lines since the last call, a line each. */
    static std::string takeHistory() {
        const std::string path = "/run/kvsim/gpio/gpiochip1/history";
        const std::string history = kvsim::Machine::read(path);
        kvsim::Machine::write(path, "");
        return history;
    }

    /** Levels of lines 7 to 16, the higher the offset the later. */
    static std::string levels() {
        std::string text;
        for (int offset = 7; offset <= 16; ++offset) {
            text += kvsim::Machine::read("/run/kvsim/gpio/gpiochip1/lines/" + std::to_string(offset) +
                                         "/value")[0];
        }
        return text;
    }

    static auto openFiles() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    }

    kvsim::Machine machine_;
    LogCapture log_;
};

}  // namespace kv::test
