#pragma once

#include <cstdint>
#include <kvsim/machine.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/pci.h>

#include "support/log_capture.h"
#include "support/machine_test.h"
#include "support/shell.h"

namespace kv::test {

constexpr uint16_t kVendor = 0x1b5a;
constexpr uint16_t kDevice = 0x0100;
constexpr uint16_t kAnySubsystem = KV_PCI_ANY_SUBSYSTEM;

constexpr unsigned kCommand = 0x04;
constexpr uint16_t kMemoryAndBusMaster = 0x0006;

/** A machine with PCI, and the log of what the library says on it. */
class PciMachine : public testing::Test {
 protected:
    /** A board of the identity that most tests look for. */
    static kvsim::PciFunction board(uint8_t bus, uint8_t slot, uint16_t device = kDevice) {
        kvsim::PciFunction function;
        function.bus = bus;
        function.slot = slot;
        function.vendor = kVendor;
        function.device = device;
        return function;
    }

    kvsim::PciFunctionBuilder addBoard(uint8_t bus, uint8_t slot, uint16_t device = kDevice) {
        return machine_.addPciFunction(board(bus, slot, device));
    }

    kvsim::PciFunctionBuilder addBridge(uint8_t bus, uint8_t slot, uint8_t secondaryBus) {
        kvsim::PciFunction bridge;
        bridge.bus = bus;
        bridge.slot = slot;
        return machine_.addBridge(bridge, secondaryBus);
    }

    /** The files that a program inherits when this process starts it. */
    static std::string inheritedFiles() { return shell("ls -l /proc/self/fd").output; }

    kvsim::Machine machine_;
    LogCapture log_;
};

}  // namespace kv::test
