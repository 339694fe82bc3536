#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvsim {

/** Where an element was described: line and column in its file, counted from 1. Zero when it was built in
 * code. */
struct Position {
    int line = 0;
    int column = 0;
};

/** A description that is no possible machine. what() tells the reason, and the file and place where one is
 * known. */
class DescriptionError : public std::runtime_error {
 public:
    DescriptionError(const std::string& reason, Position position)
        : std::runtime_error(reason), position_(position) {}
    explicit DescriptionError(const std::string& reason) : DescriptionError(reason, {}) {}

    [[nodiscard]] Position position() const noexcept { return position_; }

 private:
    Position position_;
};

/** A device as user space knows it, such as a network interface or a serial port, below its hardware device.
 */
struct ClassDevice {
    /** The kernel's name of the class: "net", "tty", ... */
    std::string className = {};
    std::string name = {};
    /** Further attribute files and their texts; they replace those that the class has anyway. */
    std::map<std::string, std::string> attributes = {};
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
    /** PCI drivers that the kernel has loaded, beside those that hold a function. */
    std::vector<std::string> pciDrivers = {};
    std::vector<PciFunction> pciFunctions = {};
    std::vector<PlatformDevice> platformDevices = {};
    /** Written last: a path that the machine has anyway is replaced. */
    std::vector<PlainFile> files = {};
};

/** Throws DescriptionError for the first thing that no machine could have, such as two functions at one
 * address. */
void validate(const MachineDescription& description);

}  // namespace kvsim
