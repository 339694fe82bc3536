#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kvsim/description.h"
#include "layout/file_tree.h"

namespace kvsim {

/** The folders that are the machine's own; everything else is the desk's. */
inline constexpr const char* kMachineFolders[] = {
    "/sys", "/run", "/dev", "/usr/kelvaro", "/home/brvn/logs", "/tmp/kelvaro", "/proc/irq"};

/** What lies inside the machine's folders and is the desk's nevertheless: nothing of a machine may be put
 * there. */
inline constexpr const char* kDeskFolders[] = {"/run/user", "/dev/pts", "/dev/shm"};

/** All files of a valid machine. */
FileTree layOut(const MachineDescription& description);

/** "0000:05:00.0" */
std::string pciName(const PciFunction& function);

/** "/sys/bus/pci/devices/0000:05:00.0" */
std::string pciPath(const PciFunction& function);

/** Whether processes map the BAR through /dev/mem, since its first byte is not the first of a page. */
bool isReachedThroughMemoryDevice(const Bar& bar);

/** Adds class devices below their hardware devices. One object numbers all class devices of a machine. */
class ClassDeviceLayout {
 public:
    explicit ClassDeviceLayout(FileTree& tree) : tree_(tree) {}
    void add(const std::string& parentPath, const std::vector<ClassDevice>& devices);

 private:
    void addNetworkInterface(const std::string& path, const ClassDevice& device);
    void addSerialPort(const std::string& path, const ClassDevice& device);

    FileTree& tree_;
    unsigned nextInterfaceIndex_ = 2;  // 1 is the loopback interface's
    unsigned nextSerialMinor_ = 64;
};

// The parts of layOut(), one per kind of device.
void layOutPci(const MachineDescription& description, FileTree& tree, ClassDeviceLayout& classDevices);
void layOutPlatform(const MachineDescription& description, FileTree& tree, ClassDeviceLayout& classDevices);
void layOutCpus(unsigned count, FileTree& tree);

}  // namespace kvsim
