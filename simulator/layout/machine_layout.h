#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kvsim/description.h"
#include "layout/file_tree.h"
#include "layout/pci_topology.h"

namespace kvsim {

/** The folders that are the machine's own; everything else is the desk's. */
inline constexpr const char* kMachineFolders[] = {
    "/sys", "/run", "/dev", "/usr/kelvaro", "/home/brvn/logs", "/tmp/kelvaro", "/proc/irq"};

/** What lies inside the machine's folders and is the desk's nevertheless: nothing of a machine may be put
 * there. */
inline constexpr const char* kDeskFolders[] = {"/run/user", "/dev/pts", "/dev/shm"};

/** All files of a valid machine. */
FileTree layOut(const MachineDescription& description);

inline constexpr const char* kPciBusFolder = "/sys/bus/pci";
inline constexpr const char* kMemoryDevice = "/dev/mem";

/** "0000:05:00.0" */
std::string pciName(const PciFunction& function);

/** "/sys/bus/pci/devices/0000:05:00.0" */
std::string pciPath(const PciFunction& function);

/** "/sys/devices/pci0000:00/0000:00:01.0/0000:05:00.0" */
std::string pciDevicePath(const PciFunction& function, const PciTopology& topology);

/** The driver that holds a function from the start: bridges always have theirs. Empty where there is none. */
std::string pciDriverOf(const PciFunction& function);

/** "/sys/bus/pci/drivers/igb" */
std::string pciDriverPath(const std::string& driver);

/** The text of a function's "uevent" while a driver, or none, holds it. */
std::string pciUevent(const PciFunction& function, const std::string& driver);

/**
 * What is on the machine while a driver holds a function: the links between them, and where it is the driver
 * of the description, the function's class devices.
 */
FileTree layOutPciBinding(const MachineDescription& description, const PciFunction& function,
                          const std::string& driver);

/** Whether processes map the BAR through /dev/mem, since its first byte is not the first of a page. */
bool isReachedThroughMemoryDevice(const Bar& bar);

/** Adds class devices below their hardware devices. One object numbers all class devices of a machine. */
class ClassDeviceLayout {
 public:
    void add(const std::string& parentPath, const std::vector<ClassDevice>& devices, FileTree& tree);

 private:
    void addNetworkInterface(const std::string& path, const ClassDevice& device, FileTree& tree);
    void addSerialPort(const std::string& path, const ClassDevice& device, FileTree& tree);

    unsigned nextInterfaceIndex_ = 2;  // 1 is the loopback interface's
    unsigned nextSerialMinor_ = 64;
};

// The parts of layOut(), one per kind of device.
void layOutPci(const MachineDescription& description, FileTree& tree, ClassDeviceLayout& classDevices);
void layOutPlatform(const MachineDescription& description, FileTree& tree, ClassDeviceLayout& classDevices);
void layOutSoc(const MachineDescription& description, FileTree& tree);
void layOutGpio(const std::vector<GpioChip>& chips, FileTree& tree);
void layOutCpus(unsigned count, FileTree& tree);

}  // namespace kvsim
