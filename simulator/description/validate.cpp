#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <tuple>

#include "active/boards/board.h"
#include "description/checks.h"
#include "description/mistakes.h"
#include "kvsim/description.h"
#include "layout/format.h"
#include "layout/machine_layout.h"
#include "layout/pci_topology.h"

namespace kvsim {

namespace {

constexpr unsigned kPageSize = 4096;
constexpr unsigned kMaxSlot = 31;
constexpr unsigned kMaxFunction = 7;
constexpr unsigned kMaxClassCode = 0xFFFFFF;
constexpr unsigned kFunctionBars = 6;
constexpr unsigned kBridgeBars = 2;
constexpr unsigned kMinMemoryBarSize = 16;
constexpr unsigned kMinIoBarSize = 4;
constexpr unsigned kMaxExpressVersion = 2;
constexpr std::uint64_t kMaxIoAddress = 0x10000;

class BarChecks {
 public:
    /** Where the sound memory BARs lie. */
    [[nodiscard]] const AddressRanges& memoryRanges() const { return memoryRanges_; }

    void check(const PciFunction& function) {
        std::set<unsigned> taken;
        for (const Bar& bar : function.bars) {
            Mistakes::attempt([&] { checkBar(function, bar, taken); });
        }
    }

 private:
    void checkBar(const PciFunction& function, const Bar& bar, std::set<unsigned>& taken) {
        checkRange(bar);
        takeIndex(function, bar, bar.index, taken);
        if (isWide(bar)) {
            takeIndex(function, bar, bar.index + 1, taken);
        }
        requireRegisters(bar.registers, "BAR", bar.sizeBytes, bar.position);
        AddressRanges& ranges = bar.space == BarSpace::Io ? ioRanges_ : memoryRanges_;
        ranges.add(format("BAR %u of %s", bar.index, pciName(function).c_str()), bar.address, bar.sizeBytes,
                   bar.position);
    }

    static void checkRange(const Bar& bar) {
        const bool isIo = bar.space == BarSpace::Io;
        const unsigned minimum = isIo ? kMinIoBarSize : kMinMemoryBarSize;
        const std::uint64_t end = isIo ? kMaxIoAddress : kMaxAddress;
        if ((bar.sizeBytes & (bar.sizeBytes - 1)) != 0 || bar.sizeBytes < minimum) {
            refuse(format("the size %s of BAR %u is not a power of two of at least %u",
                          hex(bar.sizeBytes).c_str(), bar.index, minimum),
                   bar.position);
        }
        requireRange(format("BAR %u", bar.index), bar.address, bar.sizeBytes, end, bar.position);
        const std::uint64_t alignment = bar.sizeBytes < kPageSize ? minimum : bar.sizeBytes;
        if (bar.address % alignment != 0) {
            refuse(format("BAR %u at %s is not aligned to %s, as its size requires", bar.index,
                          hex(bar.address).c_str(), hex(alignment).c_str()),
                   bar.position);
        }
    }

    static void takeIndex(const PciFunction& function, const Bar& bar, unsigned index,
                          std::set<unsigned>& taken) {
        const unsigned bars = function.secondaryBus ? kBridgeBars : kFunctionBars;
        if (index >= bars) {
            refuse(format("there is no BAR %u%s: a %s has %u", index,
                          index == bar.index ? "" : " for the upper half of a 64-bit address",
                          function.secondaryBus ? "bridge" : "device", bars),
                   bar.position);
        }
        if (!taken.insert(index).second) {
            refuse(format("BAR %u is taken already", index), bar.position);
        }
    }

    AddressRanges memoryRanges_;
    AddressRanges ioRanges_;
};

/**
 * What is on a bus and what its bridges forward lie side by side, the memory windows of one bridge too: a
 * kernel gives up a bridge where they overlap.
 */
void checkWindows(const std::vector<PciFunction>& functions) {
    const PciTopology topology(functions);
    std::map<unsigned, AddressRanges> buses;
    for (const PciFunction& function : functions) {
        AddressRanges& bus = buses[function.bus];
        const std::string name = pciName(function);
        const auto addWindow = [&](const char* kind, const std::optional<AddressRange>& window) {
            if (window) {
                bus.add(format("the %s window of %s", kind, name.c_str()), window->first,
                        window->last - window->first + 1, function.position);
            }
        };
        for (const Bar& bar : function.bars) {
            if (bar.space != BarSpace::Io) {
                bus.add(format("BAR %u of %s", bar.index, name.c_str()), bar.address, bar.sizeBytes,
                        bar.position);
            }
        }
        if (function.secondaryBus) {
            const BridgeWindows windows = topology.windows(function);
            addWindow("memory", windows.memory);
            addWindow("prefetchable", windows.prefetchable);
        }
    }
}

void checkFunctionFields(const PciFunction& function) {
    const auto inRange = [&function](const char* what, unsigned value, unsigned first, unsigned last) {
        if (value < first || value > last) {
            refuse(format("the %s %s is not in the range %s to %s", what, hex(value).c_str(),
                          hex(first).c_str(), hex(last).c_str()),
                   function.position);
        }
    };
    inRange("slot", function.slot, 0, kMaxSlot);
    inRange("function", function.function, 0, kMaxFunction);
    inRange("vendor", function.vendor, 1, UINT16_MAX - 1);  // the ends stand for "nothing there"
    inRange("class", function.classCode, 0, kMaxClassCode);
    if (function.express) {
        inRange("Express capability version", function.express->version, 1, kMaxExpressVersion);
        inRange("Express link width", function.express->linkWidth, 1, 32);
    }
    if (!function.driver.empty()) {
        requireFileName(function.driver, "a driver", function.position);
    }
}

void checkPciDrivers(const std::vector<PciDriver>& drivers) {
    std::set<std::string> names;
    for (const PciDriver& driver : drivers) {
        Mistakes::attempt([&] {
            requireFileName(driver.name, "a driver", driver.position);
            if (!names.insert(driver.name).second) {
                refuse("there are two PCI drivers named " + driver.name, driver.position);
            }
        });
    }
}

void checkBridge(const PciFunction& function, std::set<unsigned>& buses) {
    const bool isNewBus = buses.insert(*function.secondaryBus).second;
    if (*function.secondaryBus <= function.bus) {
        refuse(format("a bridge on bus %u can't lead to bus %u: numbers grow with the distance from bus 0",
                      function.bus, *function.secondaryBus),
               function.position);
    }
    if (!isNewBus) {
        refuse(format("two bridges lead to bus %u", *function.secondaryBus), function.position);
    }
}

/** Returns where memory is taken. */
AddressRanges checkPci(const MachineDescription& description) {
    const int formerMistakes = Mistakes::count();
    std::set<std::string> addresses;
    std::set<unsigned> buses = {0};
    for (const PciFunction& function : description.pciFunctions) {
        Mistakes::attempt([&] { checkFunctionFields(function); });
        Mistakes::attempt([&] {
            if (!addresses.insert(pciName(function)).second) {
                refuse(pciName(function) + " is described twice", function.position);
            }
        });
        if (function.secondaryBus) {
            Mistakes::attempt([&] { checkBridge(function, buses); });
        }
    }
    BarChecks barChecks;
    for (const PciFunction& function : description.pciFunctions) {
        Mistakes::attempt([&] {
            if (!buses.contains(function.bus)) {
                refuse(format("no bridge leads to bus %u", function.bus), function.position);
            }
        });
        barChecks.check(function);
        Mistakes::attempt([&] { checkBoard(function); });
    }
    if (Mistakes::count() == formerMistakes) {
        Mistakes::attempt([&] { checkWindows(description.pciFunctions); });
    }
    checkPciDrivers(description.pciDrivers);
    return barChecks.memoryRanges();
}

class ClassDeviceChecks {
 public:
    void check(const std::vector<ClassDevice>& devices) {
        for (const ClassDevice& device : devices) {
            Mistakes::attempt([&] { checkDevice(device); });
        }
    }

 private:
    void checkDevice(const ClassDevice& device) {
        requireFileName(device.className, "a device class", device.position);
        requireFileName(device.name, "a device", device.position);
        if (!names_.emplace(device.className, device.name).second) {
            refuse(format("there are two %s devices named %s", device.className.c_str(), device.name.c_str()),
                   device.position);
        }
        for (const auto& [name, text] : device.attributes) {
            requireFileName(name, "an attribute", device.position);
        }
        if (device.terminal && device.className != "tty") {
            refuse("a " + device.className + " device is not a terminal", device.position);
        }
    }

    std::set<std::pair<std::string, std::string>> names_ = {{"hwmon", "hwmon0"}};
};

void checkPlatformDevice(const PlatformDevice& device, std::set<std::string>& names) {
    const std::filesystem::path path(device.name);
    for (const auto& component : path) {
        requireFileName(component == "/" ? "" : component.string(), "a platform device", device.position);
    }
    requireFileName(path.filename(), "a platform device", device.position);
    if (!names.insert(path.filename()).second) {
        refuse("there are two platform devices named " + path.filename().string(), device.position);
    }
    for (const auto& [name, text] : device.attributes) {
        requireFileName(name, "an attribute", device.position);
    }
}

void checkPlatformDevices(const std::vector<PlatformDevice>& devices) {
    std::set<std::string> names = {"rttm", "ember-thermal"};  // the machine's own
    for (const PlatformDevice& device : devices) {
        Mistakes::attempt([&] { checkPlatformDevice(device, names); });
    }
}

bool isBelow(const std::string& path, const std::string& folder) {
    return path.starts_with(folder + "/") && path.size() > folder.size() + 1;
}

void checkFile(const PlainFile& file) {
    const auto below = [&file](const char* folder) { return isBelow(file.path, folder); };
    const bool isPlain = std::filesystem::path(file.path).lexically_normal() == file.path &&
                         file.path.find('\0') == std::string::npos && !file.path.ends_with('/');
    if (!isPlain || std::ranges::none_of(kMachineFolders, below) ||
        std::ranges::any_of(kDeskFolders, below)) {
        refuse(format("\"%s\" is not a path in the folders of the machine", file.path.c_str()),
               file.position);
    }
}

}  // namespace

void validate(const MachineDescription& description) {
    if (description.cpus < 1 || description.cpus > kMaxCpus) {
        refuse(format("a machine has 1 to %u CPUs, not %u", kMaxCpus, description.cpus), {});
    }
    for (const auto& [name, text] : description.systemInformation) {
        requireFileName(name, "a system-information file", {});
    }
    checkSoc(description, checkPci(description));
    checkGpio(description.gpioChips);
    checkPlatformDevices(description.platformDevices);
    ClassDeviceChecks classDeviceChecks;
    for (const PciFunction& function : description.pciFunctions) {
        classDeviceChecks.check(function.classDevices);
    }
    for (const PlatformDevice& device : description.platformDevices) {
        classDeviceChecks.check(device.classDevices);
    }
    for (const PlainFile& file : description.files) {
        Mistakes::attempt([&] { checkFile(file); });
    }
}

}  // namespace kvsim
