#pragma once

#include <kvsim/description_reader.h>
#include <kvsim/machine.h>

namespace kv::test {

constexpr const char* kBitstream = "/usr/kelvaro/fabric.bit";
constexpr const char* kTranslation = "/usr/kelvaro/sysinfo/ethTranslateFile.txt";
constexpr uint16_t kVendor = 0x1b5a;
constexpr uint16_t kAnalogBoard = 0x0a18;  // on bus 9
constexpr uint8_t kDigitalBus = 10;
constexpr uint8_t kSerialSlot = 5;
constexpr std::size_t kPageBytes = 4096;

/** A machine on which every function of the library finds what it needs. */
inline kvsim::Machine equippedMachine() {
    kvsim::Machine machine(kvsim::readDescription(kvsim::findMachine("ember")));
    machine.cachedBuffer(0x60000000, 4 * kPageBytes);
    machine.addPciFunction({.slot = kSerialSlot, .vendor = kVendor, .device = 0x0500})
        .serialPort("ttyK0")
        .serialPort("ttyK1");
    machine.addFile(kBitstream, "fabric");
    return machine;
}

}  // namespace kv::test
