#include "layout/config_space.h"

#include <algorithm>
#include <cstddef>

extern "C" {
#include <linux/pci_regs.h>
}

namespace kvsim {

namespace {

constexpr std::size_t kConventionalSize = 256;
constexpr std::size_t kExpressSize = 4096;
constexpr unsigned kExpressCapability = 0x40;
constexpr unsigned kMultiFunctionBit = 0x80;
constexpr unsigned kInterruptPinA = 1;
constexpr unsigned kCacheLineWords = 16;

/** Little-endian registers in a block of bytes. */
class Registers {
 public:
    explicit Registers(std::size_t sizeBytes) : bytes_(sizeBytes, '\0') {}

    void set8(unsigned offset, std::uint64_t value) { set(offset, value, 1); }
    void set16(unsigned offset, std::uint64_t value) { set(offset, value, 2); }
    void set32(unsigned offset, std::uint64_t value) { set(offset, value, 4); }

    [[nodiscard]] std::string take() { return std::move(bytes_); }

 private:
    void set(unsigned offset, std::uint64_t value, unsigned width) {
        for (unsigned byte = 0; byte < width; ++byte) {
            bytes_.at(offset + byte) = static_cast<char>(value >> (8 * byte) & 0xFF);
        }
    }

    std::string bytes_;
};

unsigned command(const PciFunction& function) {
    if (!isEnabled(function)) {
        return 0;
    }
    const bool hasIo = std::any_of(function.bars.begin(), function.bars.end(),
                                   [](const Bar& bar) { return bar.space == BarSpace::Io; });
    return PCI_COMMAND_MEMORY | PCI_COMMAND_MASTER | (hasIo || function.secondaryBus ? PCI_COMMAND_IO : 0u);
}

void setIdentity(Registers& registers, const PciFunction& function, bool isMultiFunction) {
    registers.set16(PCI_VENDOR_ID, function.vendor);
    registers.set16(PCI_DEVICE_ID, function.device);
    registers.set16(PCI_COMMAND, command(function));
    registers.set16(PCI_STATUS, function.express ? PCI_STATUS_CAP_LIST : 0);
    registers.set8(PCI_CLASS_REVISION, function.revision);
    registers.set8(PCI_CLASS_PROG, function.classCode);
    registers.set16(PCI_CLASS_DEVICE, function.classCode >> 8);
    registers.set8(PCI_CACHE_LINE_SIZE, kCacheLineWords);
    const unsigned type = function.secondaryBus ? PCI_HEADER_TYPE_BRIDGE : PCI_HEADER_TYPE_NORMAL;
    registers.set8(PCI_HEADER_TYPE, type | (isMultiFunction ? kMultiFunctionBit : 0));
    if (function.irq != 0) {
        registers.set8(PCI_INTERRUPT_LINE, function.irq);
        registers.set8(PCI_INTERRUPT_PIN, kInterruptPinA);
    }
}

void setBars(Registers& registers, const PciFunction& function) {
    for (const Bar& bar : function.bars) {
        const unsigned offset = PCI_BASE_ADDRESS_0 + 4 * bar.index;
        registers.set32(offset, bar.address | barFlags(bar));
        if (isWide(bar)) {
            registers.set32(offset + 4, bar.address >> 32);
        }
    }
}

void setBridgeWindows(Registers& registers, const BridgeWindows& windows) {
    // A window whose base lies above its limit forwards nothing.
    const AddressRange io = windows.io.value_or(AddressRange{0xF000, 0});
    registers.set8(PCI_IO_BASE, (io.first >> 8 & 0xF0) | PCI_IO_RANGE_TYPE_32);
    registers.set8(PCI_IO_LIMIT, (io.last >> 8 & 0xF0) | PCI_IO_RANGE_TYPE_32);
    registers.set16(PCI_IO_BASE_UPPER16, io.first >> 16);
    registers.set16(PCI_IO_LIMIT_UPPER16, io.last >> 16);

    const AddressRange memory = windows.memory.value_or(AddressRange{0xFFF00000, 0});
    registers.set16(PCI_MEMORY_BASE, memory.first >> 16 & 0xFFF0);
    registers.set16(PCI_MEMORY_LIMIT, memory.last >> 16 & 0xFFF0);

    const AddressRange prefetchable = windows.prefetchable.value_or(AddressRange{0xFFF00000, 0});
    registers.set16(PCI_PREF_MEMORY_BASE, (prefetchable.first >> 16 & 0xFFF0) | PCI_PREF_RANGE_TYPE_64);
    registers.set16(PCI_PREF_MEMORY_LIMIT, (prefetchable.last >> 16 & 0xFFF0) | PCI_PREF_RANGE_TYPE_64);
    registers.set32(PCI_PREF_BASE_UPPER32, prefetchable.first >> 32);
    registers.set32(PCI_PREF_LIMIT_UPPER32, prefetchable.last >> 32);
}

void setBridge(Registers& registers, const PciFunction& bridge, const PciTopology& topology) {
    registers.set8(PCI_PRIMARY_BUS, bridge.bus);
    registers.set8(PCI_SECONDARY_BUS, *bridge.secondaryBus);
    registers.set8(PCI_SUBORDINATE_BUS, topology.subordinateBus(bridge));
    setBridgeWindows(registers, topology.windows(bridge));
}

void setExpressCapability(Registers& registers, const ExpressCapability& express, ExpressPort port) {
    registers.set8(PCI_CAPABILITY_LIST, kExpressCapability);
    registers.set8(kExpressCapability + PCI_CAP_LIST_ID, PCI_CAP_ID_EXP);
    registers.set16(kExpressCapability + PCI_EXP_FLAGS, express.version | static_cast<unsigned>(port) << 4);
    const unsigned link = PCI_EXP_LNKCAP_SLS_2_5GB | static_cast<unsigned>(express.linkWidth) << 4;
    registers.set32(kExpressCapability + PCI_EXP_LNKCAP, link);
    registers.set16(kExpressCapability + PCI_EXP_LNKSTA, link);
    if (express.version >= 2) {
        registers.set32(kExpressCapability + PCI_EXP_LNKCAP2, PCI_EXP_LNKCAP2_SLS_2_5GB);
        registers.set16(kExpressCapability + PCI_EXP_LNKCTL2, PCI_EXP_LNKCTL2_TLS_2_5GT);
    }
}

}  // namespace

bool isEnabled(const PciFunction& function) {
    return function.enabled.value_or(!function.driver.empty() || function.secondaryBus.has_value());
}

std::string configSpace(const PciFunction& function, const PciTopology& topology) {
    Registers registers(function.express ? kExpressSize : kConventionalSize);
    setIdentity(registers, function, topology.isMultiFunction(function));
    setBars(registers, function);
    if (function.secondaryBus) {
        setBridge(registers, function, topology);
    } else {
        registers.set16(PCI_SUBSYSTEM_VENDOR_ID, function.subsystemVendor);
        registers.set16(PCI_SUBSYSTEM_ID, function.subsystemDevice);
    }
    if (function.express) {
        setExpressCapability(registers, *function.express, topology.expressPort(function));
    }
    return registers.take();
}

}  // namespace kvsim
