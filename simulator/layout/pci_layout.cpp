#include <algorithm>
#include <set>

extern "C" {
#include <linux/pci_regs.h>
}

#include "layout/config_space.h"
#include "layout/format.h"
#include "layout/machine_layout.h"
#include "layout/pci_topology.h"

namespace kvsim {

namespace {

constexpr const char* kRootFolder = "/sys/devices/pci0000:00";
constexpr const char* kBridgeDriver = "pcieport";
constexpr std::uint64_t kPageSize = 4096;

// Flags of a resource beside the base address register's own, as the kernel shows them.
constexpr std::uint64_t kResourceIo = 0x00000100;
constexpr std::uint64_t kResourceMemory = 0x00000200;
constexpr std::uint64_t kResourcePrefetch = 0x00002000;
constexpr std::uint64_t kResourceSizeAlign = 0x00040000;
constexpr std::uint64_t kResource64Bit = 0x00100000;

// Lines of a "resource" file: six BARs and the expansion ROM, as many again for virtual functions, bridge
// windows.
constexpr std::size_t kFunctionResources = 13;
constexpr std::size_t kBridgeResources = 17;

std::string resourceLine(std::uint64_t first, std::uint64_t last, std::uint64_t flags) {
    return format("0x%016llx 0x%016llx 0x%016llx\n", static_cast<unsigned long long>(first),
                  static_cast<unsigned long long>(last), static_cast<unsigned long long>(flags));
}

std::string barLine(const Bar& bar) {
    std::uint64_t flags = barFlags(bar) | kResourceSizeAlign;
    flags |= bar.space == BarSpace::Io ? kResourceIo : kResourceMemory;
    flags |= bar.space == BarSpace::PrefetchableMemory ? kResourcePrefetch : 0;
    flags |= isWide(bar) ? kResource64Bit : 0;
    return resourceLine(bar.address, bar.address + (bar.sizeBytes - 1), flags);
}

std::string windowLine(const std::optional<AddressRange>& window, std::uint64_t flags) {
    return window ? resourceLine(window->first, window->last, flags) : resourceLine(0, 0, 0);
}

std::string resourceText(const PciFunction& function, const PciTopology& topology) {
    std::vector<std::string> lines(function.secondaryBus ? kBridgeResources : kFunctionResources,
                                   resourceLine(0, 0, 0));
    for (const Bar& bar : function.bars) {
        lines[bar.index] = barLine(bar);
    }
    if (function.secondaryBus) {
        const BridgeWindows windows = topology.windows(function);
        lines[kFunctionResources] = windowLine(windows.io, kResourceIo | PCI_IO_RANGE_TYPE_32);
        lines[kFunctionResources + 1] = windowLine(windows.memory, kResourceMemory);
        lines[kFunctionResources + 2] =
            windowLine(windows.prefetchable,
                       kResourceMemory | kResourcePrefetch | kResource64Bit | PCI_PREF_RANGE_TYPE_64);
    }
    std::string text;
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

std::string modalias(const PciFunction& f) {
    return format("pci:v%08Xd%08Xsv%08Xsd%08Xbc%02Xsc%02Xi%02X", f.vendor, f.device, f.subsystemVendor,
                  f.subsystemDevice, f.classCode >> 16, f.classCode >> 8 & 0xFF, f.classCode & 0xFF);
}

std::vector<File::Word> wordsFrom(const Bar& bar, std::uint64_t start) {
    std::vector<File::Word> words;
    words.reserve(bar.registers.size());
    for (const auto& [offset, value] : bar.registers) {
        words.push_back({start + offset, value});
    }
    return words;
}

void addBars(const PciFunction& function, const std::string& path, FileTree& tree, File& memoryDevice) {
    for (const Bar& bar : function.bars) {
        File resource{.mode = 0600, .sizeBytes = bar.sizeBytes};
        if (isReachedThroughMemoryDevice(bar)) {
            const auto words = wordsFrom(bar, bar.address);
            memoryDevice.words.insert(memoryDevice.words.end(), words.begin(), words.end());
            const std::uint64_t end = (bar.address + bar.sizeBytes + kPageSize - 1) & ~(kPageSize - 1);
            memoryDevice.sizeBytes = std::max(memoryDevice.sizeBytes, end);
        } else {
            resource.words = wordsFrom(bar, 0);
        }
        tree.add(path + format("/resource%u", bar.index), std::move(resource));
    }
}

void addIdentity(const PciFunction& f, const std::string& path, FileTree& tree) {
    tree.addText(path + "/vendor", format("0x%04x\n", f.vendor));
    tree.addText(path + "/device", format("0x%04x\n", f.device));
    tree.addText(path + "/subsystem_vendor", format("0x%04x\n", f.subsystemVendor));
    tree.addText(path + "/subsystem_device", format("0x%04x\n", f.subsystemDevice));
    tree.addText(path + "/class", format("0x%06x\n", f.classCode));
    tree.addText(path + "/revision", format("0x%02x\n", f.revision));
    // The kernel gives a function its interrupt when the first driver takes it.
    tree.addText(path + "/irq", format("%u\n", pciDriverOf(f).empty() ? 0 : f.irq));
    tree.addText(path + "/modalias", modalias(f) + "\n");
    tree.addWritable(path + "/uevent", pciUevent(f, pciDriverOf(f)));
    tree.addWritable(path + "/enable", isEnabled(f) ? "1\n" : "0\n");
    tree.addLink(path + "/subsystem", kPciBusFolder);
}

void addDriver(const std::string& name, FileTree& tree) {
    for (const char* file : {"/bind", "/unbind", "/new_id", "/remove_id", "/uevent"}) {
        tree.addWritable(pciDriverPath(name) + file, "");
    }
}

void addDriverLinks(const PciFunction& function, const std::string& path, const std::string& driver,
                    FileTree& tree) {
    tree.addLink(path + "/driver", pciDriverPath(driver));
    tree.addLink(pciDriverPath(driver) + "/" + pciName(function), path);
}

}  // namespace

std::string pciName(const PciFunction& function) {
    return format("0000:%02x:%02x.%x", function.bus, function.slot, function.function);
}

std::string pciPath(const PciFunction& function) {
    return std::string(kPciBusFolder) + "/devices/" + pciName(function);
}

std::string pciDevicePath(const PciFunction& function, const PciTopology& topology) {
    const PciFunction* bridge = topology.bridgeTo(function.bus);
    return (bridge == nullptr ? kRootFolder : pciDevicePath(*bridge, topology)) + "/" + pciName(function);
}

std::string pciDriverOf(const PciFunction& function) {
    return function.driver.empty() && function.secondaryBus ? kBridgeDriver : function.driver;
}

std::string pciDriverPath(const std::string& driver) {
    return std::string(kPciBusFolder) + "/drivers/" + driver;
}

std::string pciUevent(const PciFunction& function, const std::string& driver) {
    return (driver.empty() ? std::string() : "DRIVER=" + driver + "\n") +
           format("PCI_CLASS=%X\nPCI_ID=%04X:%04X\nPCI_SUBSYS_ID=%04X:%04X\nPCI_SLOT_NAME=%s\nMODALIAS=%s\n",
                  function.classCode, function.vendor, function.device, function.subsystemVendor,
                  function.subsystemDevice, pciName(function).c_str(), modalias(function).c_str());
}

FileTree layOutPciBinding(const MachineDescription& description, const PciFunction& function,
                          const std::string& driver) {
    const PciTopology topology(description.pciFunctions);
    FileTree tree;
    addDriverLinks(function, pciDevicePath(function, topology), driver, tree);
    if (driver != pciDriverOf(function)) {
        return tree;
    }
    ClassDeviceLayout classDevices;  // counts those of all functions, so that numbers are what they were
    for (const PciFunction& each : description.pciFunctions) {
        FileTree others;
        classDevices.add(pciDevicePath(each, topology), each.classDevices,
                         &each == &function ? tree : others);
    }
    return tree;
}

bool isReachedThroughMemoryDevice(const Bar& bar) {
    return bar.space != BarSpace::Io && bar.address % kPageSize != 0;
}

void layOutPci(const MachineDescription& description, FileTree& tree, ClassDeviceLayout& classDevices) {
    const PciTopology topology(description.pciFunctions);
    File memoryDevice{.mode = 0600};
    std::set<std::string> drivers;
    for (const PciDriver& driver : description.pciDrivers) {
        drivers.insert(driver.name);
    }

    tree.addFolder(std::string(kPciBusFolder) + "/devices");
    tree.addWritable(std::string(kPciBusFolder) + "/drivers_probe", "");
    tree.addWritable(std::string(kPciBusFolder) + "/drivers_autoprobe", "1\n");
    for (const PciFunction& function : description.pciFunctions) {
        const std::string path = pciDevicePath(function, topology);
        addIdentity(function, path, tree);
        tree.add(path + "/config", {.content = configSpace(function, topology), .mode = 0644});
        tree.addText(path + "/resource", resourceText(function, topology));
        addBars(function, path, tree, memoryDevice);
        classDevices.add(path, function.classDevices, tree);
        tree.addLink(pciPath(function), path);
        if (const std::string driver = pciDriverOf(function); !driver.empty()) {
            drivers.insert(driver);
            addDriverLinks(function, path, driver, tree);
        }
    }
    for (const std::string& driver : drivers) {
        addDriver(driver, tree);
    }
    tree.add(kMemoryDevice, std::move(memoryDevice));
}

}  // namespace kvsim
