#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvsim/export.h"

namespace kvsim {

/** Where an element was described: line and column in its file, counted from 1. Zero when it was built in
 * code. */
struct Position {
    int line = 0;
    int column = 0;
};

/** A description that is no possible machine. what() tells the reason, and the file and place where one is
 * known. */
class KVSIM_EXPORT DescriptionError : public std::runtime_error {
 public:
    DescriptionError(const std::string& reason, Position position)
        : std::runtime_error(reason), position_(position) {}
    explicit DescriptionError(const std::string& reason) : DescriptionError(reason, {}) {}

    [[nodiscard]] Position position() const noexcept { return position_; }

 private:
    Position position_;
};

/** What is at the other end of a serial line. */
enum class FarEnd {
    /** Sends back what comes. */
    Echo,
    /** Appends what comes to /run/kvsim/serial/<name>.out, and sends what is written to <name>.in there. */
    Capture,
    /** Nothing: what is sent is lost. */
    None
};

/** A device as user space knows it, such as a network interface or a serial port, below its hardware device.
 */
struct ClassDevice {
    /** The kernel's name of the class: "net", "tty", ... */
    std::string className = {};
    std::string name = {};
    /** Further attribute files and their texts; they replace those that the class has anyway. */
    std::map<std::string, std::string> attributes = {};
    /** Makes a serial port (class tty) a terminal, /dev/<name>. Without it there is no such file. */
    std::optional<FarEnd> terminal = {};
    Position position = {};
};

/** A device of the chip itself, /sys/devices/platform/<name>. */
struct PlatformDevice {
    /** May hold slashes where the device lies below a bus: "axi/ff000000.serial". */
    std::string name = {};
    std::map<std::string, std::string> attributes = {};
    std::vector<ClassDevice> classDevices = {};
    Position position = {};
};

/** The class code of a PCI-to-PCI bridge. */
inline constexpr std::uint32_t kBridgeClassCode = 0x060400;

enum class BarSpace { Memory, PrefetchableMemory, Io };

/** One base address register. A memory BAR that ends above 4 GiB is a 64-bit one and takes the next index
 * too. */
struct Bar {
    unsigned index = 0;
    std::uint64_t address = 0;
    std::uint64_t sizeBytes = 0;
    BarSpace space = BarSpace::Memory;
    /** Initial contents: 32-bit words by their offset. The rest reads as zero. */
    std::map<std::uint32_t, std::uint32_t> registers = {};
    Position position = {};
};

struct ExpressCapability {
    std::uint8_t version = 2;
    std::uint8_t linkWidth = 1;
};

/** A first-order lag between an output and an input of an analog board: gain / (1 + time constant * s). */
struct Plant {
    unsigned output = 0;
    unsigned input = 0;
    double gain = 1;
    double timeConstantSeconds = 0.05;
    Position position = {};
};

/** One PCI function in domain 0. With a secondary bus it is a PCI-to-PCI bridge. */
struct PciFunction {
    std::uint8_t bus = 0;
    std::uint8_t slot = 0;
    std::uint8_t function = 0;
    std::uint16_t vendor = 0;
    std::uint16_t device = 0;
    std::uint16_t subsystemVendor = 0;
    std::uint16_t subsystemDevice = 0;
    std::uint32_t classCode = 0x118000;  // data acquisition
    std::uint8_t revision = 0;
    std::uint8_t irq = 0;
    /** Name of the kernel driver that holds the function; empty when there is none. */
    std::string driver = {};
    /** The text of the "enable" file; a function that a driver holds is enabled unless it is said otherwise.
     */
    std::optional<bool> enabled = {};
    std::optional<ExpressCapability> express = {};
    std::optional<std::uint8_t> secondaryBus = {};
    std::vector<Bar> bars = {};
    std::vector<ClassDevice> classDevices = {};
    /**
     * What acts behind the registers: "analog-io". Empty for registers that keep what is written to them.
     */
    std::string board = {};
    /** What is connected to the terminals of an analog board. */
    std::vector<Plant> plants = {};
    Position position = {};
};

/** A PCI driver that the kernel has loaded. Beside these it has those that hold a function. */
struct PciDriver {
    struct Identity {
        std::uint16_t vendor;
        std::uint16_t device;
        auto operator<=>(const Identity&) const = default;
    };

    std::string name = {};
    /** What it drives, beside what it holds from the start and what is written to its new_id. */
    std::vector<Identity> identities = {};
    Position position = {};
};

/** A memory region of an on-chip device. */
struct UioMap {
    std::string name = {};
    std::uint64_t address = 0;
    std::uint64_t sizeBytes = 0;
    /** Where the region begins in the device file. */
    std::uint64_t offset = 0;
    /** Initial contents: 32-bit words by their offset in the region. The rest reads as zero. */
    std::map<std::uint32_t, std::uint32_t> registers = {};
    Position position = {};
};

/** A device of the programmable fabric, which user space drives through UIO. */
struct AxiDevice {
    std::string name = {};
    /** 0 for none. */
    unsigned irq = 0;
    std::vector<UioMap> maps = {};
    Position position = {};
};

inline constexpr unsigned kMaxGpioOffset = 511;

/** A GPIO chip, which programs reach through libgpiod as /dev/<name>. */
struct GpioChip {
    /** "gpiochip" and a number. */
    std::string name = {};
    std::string label = {};
    /** Names of lines by their offset. Lines below the last one that are not named here have no name. */
    std::map<unsigned, std::string> lines = {};
    Position position = {};
};

/** A part of the physical address space. */
struct MemoryRange {
    std::uint64_t address = 0;
    std::uint64_t sizeBytes = 0;
    Position position = {};
};

/** A file with its text at a path of the machine. */
struct PlainFile {
    std::string path = {};
    std::string text = {};
    Position position = {};
};

inline constexpr unsigned kMaxCpus = 256;

/** Everything that a machine consists of. As it stands it is a small machine without PCI devices. */
struct MachineDescription {
    /** One line for people. */
    std::string summary = {};
    unsigned cpus = 4;
    std::int32_t temperatureMilliCelsius = 40000;
    std::string serialNumber = "1000\n";
    /** Files of the system-information folder. */
    std::map<std::string, std::string> systemInformation = {
        {"kelvaro_version.txt", "1.0.0\n"},
        {"kelvaro_marketingName.txt", "Ember real-time target machine\n"}};
    std::vector<PciDriver> pciDrivers = {};
    std::vector<PciFunction> pciFunctions = {};
    /** They are UIO devices 0, 1, 2 and so on; those of PCI boards follow. */
    std::vector<AxiDevice> axiDevices = {};
    /** Memory from which the u-dma-buf manager takes buffers; there is no manager without it. */
    std::optional<MemoryRange> dmaMemory = {};
    /** The cache-coherent buffer that is set up at boot. */
    std::optional<MemoryRange> cachedBuffer = {};
    std::vector<GpioChip> gpioChips = {};
    std::vector<PlatformDevice> platformDevices = {};
    /** Written last: a path that the machine has anyway is replaced. */
    std::vector<PlainFile> files = {};
};

/** Throws DescriptionError for the first thing that no machine could have, such as two functions at one
 * address. */
KVSIM_EXPORT void validate(const MachineDescription& description);

}  // namespace kvsim
