#include "kvsim/machine.h"

#include <utility>

#include "host/machine_entry.h"

namespace kvsim {

namespace {

// A plain bridge, for a description that only cares where it leads.
constexpr std::uint16_t kBridgeVendor = 0x10b5;
constexpr std::uint16_t kBridgeDevice = 0x8605;

}  // namespace

PciFunctionBuilder& PciFunctionBuilder::bar(unsigned index, std::uint64_t address, std::uint64_t sizeBytes,
                                            BarSpace space) {
    function().bars.push_back({.index = index, .address = address, .sizeBytes = sizeBytes, .space = space});
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::registers(std::map<std::uint32_t, std::uint32_t> words) {
    if (function().bars.empty()) {
        throw DescriptionError("registers without a BAR that holds them");
    }
    function().bars.back().registers = std::move(words);
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::subsystem(std::uint16_t vendor, std::uint16_t device) {
    function().subsystemVendor = vendor;
    function().subsystemDevice = device;
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::driver(std::string name) {
    function().driver = std::move(name);
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::enabled(bool enabled) {
    function().enabled = enabled;
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::expressCapability(std::uint8_t version, std::uint8_t linkWidth) {
    function().express = ExpressCapability{.version = version, .linkWidth = linkWidth};
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::networkInterface(std::string name) {
    function().classDevices.push_back({.className = "net", .name = std::move(name)});
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::serialPort(std::string name) {
    function().classDevices.push_back({.className = "tty", .name = std::move(name)});
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::irq(std::uint8_t number) {
    function().irq = number;
    return *this;
}

PciFunctionBuilder& PciFunctionBuilder::board(std::string name, std::vector<Plant> plants) {
    function().board = std::move(name);
    function().plants = std::move(plants);
    return *this;
}

PciFunctionBuilder Machine::addPciFunction(PciFunction function) {
    description_.pciFunctions.push_back(std::move(function));
    return {description_, description_.pciFunctions.size() - 1};
}

PciFunctionBuilder Machine::addBridge(PciFunction bridge, std::uint8_t secondaryBus) {
    if (bridge.vendor == 0) {
        bridge.vendor = kBridgeVendor;
        bridge.device = kBridgeDevice;
    }
    bridge.classCode = kBridgeClassCode;
    bridge.secondaryBus = secondaryBus;
    return addPciFunction(std::move(bridge));
}

Machine& Machine::addPciDriver(std::string name, std::vector<PciDriver::Identity> identities) {
    description_.pciDrivers.push_back({.name = std::move(name), .identities = std::move(identities)});
    return *this;
}

Machine& Machine::addPlatformDevice(PlatformDevice device) {
    description_.platformDevices.push_back(std::move(device));
    return *this;
}

Machine& Machine::addAxiDevice(AxiDevice device) {
    description_.axiDevices.push_back(std::move(device));
    return *this;
}

Machine& Machine::addGpioChip(GpioChip chip) {
    description_.gpioChips.push_back(std::move(chip));
    return *this;
}

Machine& Machine::dmaMemory(std::uint64_t address, std::uint64_t sizeBytes) {
    description_.dmaMemory = MemoryRange{.address = address, .sizeBytes = sizeBytes};
    return *this;
}

Machine& Machine::cachedBuffer(std::uint64_t address, std::uint64_t sizeBytes) {
    description_.cachedBuffer = MemoryRange{.address = address, .sizeBytes = sizeBytes};
    return *this;
}

Machine& Machine::addFile(std::string path, std::string text) {
    description_.files.push_back({.path = std::move(path), .text = std::move(text)});
    return *this;
}

Machine& Machine::cpus(unsigned count) {
    description_.cpus = count;
    return *this;
}

Machine& Machine::temperature(std::int32_t milliCelsius) {
    description_.temperatureMilliCelsius = milliCelsius;
    return *this;
}

Machine& Machine::serialNumber(std::string record) {
    description_.serialNumber = std::move(record);
    return *this;
}

Machine& Machine::systemInformation(std::string fileName, std::string text) {
    description_.systemInformation[std::move(fileName)] = std::move(text);
    return *this;
}

Machine& Machine::keepStateIn(std::string folder) {
    stateFolder_ = std::move(folder);
    return *this;
}

void Machine::enter() {
    enterMachine(description_, {.stateFolder = stateFolder_});
}

}  // namespace kvsim
