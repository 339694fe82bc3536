#pragma once

#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/network.h>

#include "support/log_capture.h"
#include "support/machine_test.h"

namespace kv::test {

inline const std::string kTranslationFile = "/usr/kelvaro/sysinfo/ethTranslateFile.txt";

/** A machine with network interfaces, and the log of what the library says on it. */
class NetworkMachine : public testing::Test {
 protected:
    kvsim::PciFunctionBuilder addBridge(uint8_t bus, uint8_t slot, uint8_t secondaryBus) {
        return machine_.addBridge({.bus = bus, .slot = slot}, secondaryBus);
    }

    kvsim::PciFunctionBuilder addController(uint8_t bus, uint16_t device, uint8_t slot = 0,
                                            uint8_t function = 0) {
        return machine_.addPciFunction({.bus = bus,
                                        .slot = slot,
                                        .function = function,
                                        .vendor = 0x8086,
                                        .device = device,
                                        .subsystemVendor = 0x8086,
                                        .subsystemDevice = 1,
                                        .classCode = 0x020000});
    }

    /** An interface of the chip's own. */
    void addPlatformInterface(const std::string& device, const std::string& interface) {
        machine_.addPlatformDevice(
            {.name = device, .classDevices = {{.className = "net", .name = interface}}});
    }

    static auto openFiles() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    }

    kvsim::Machine machine_;
    LogCapture log_;
};

}  // namespace kv::test
