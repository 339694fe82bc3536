#include "layout/format.h"
#include "layout/machine_layout.h"

namespace kvsim {

namespace {

constexpr const char* kPlatformFolder = "/sys/devices/platform";
constexpr const char* kSystemInformationFolder = "/usr/kelvaro/sysinfo";

// The database entry that marks a device as ready: enumerations pass over numbered devices without one.
constexpr const char* kReadyEntry = "I:1\n";

constexpr unsigned kSerialMajor = 4;

}  // namespace

void ClassDeviceLayout::addNetworkInterface(const std::string& path, const ClassDevice& device) {
    const unsigned index = nextInterfaceIndex_++;
    tree_.addText(path + "/ifindex", format("%u\n", index));
    tree_.addText(path + "/address", format("02:00:00:00:00:%02x\n", index & 0xFF));
    tree_.addText(path + "/type", "1\n");
    tree_.addText(path + "/operstate", "up\n");
    tree_.addWritable(path + "/uevent", format("INTERFACE=%s\nIFINDEX=%u\n", device.name.c_str(), index));
    tree_.addText(format("/run/udev/data/n%u", index), kReadyEntry);
}

void ClassDeviceLayout::addSerialPort(const std::string& path, const ClassDevice& device) {
    const unsigned minor = nextSerialMinor_++;
    tree_.addText(path + "/dev", format("%u:%u\n", kSerialMajor, minor));
    tree_.addWritable(path + "/uevent",
                      format("MAJOR=%u\nMINOR=%u\nDEVNAME=%s\n", kSerialMajor, minor, device.name.c_str()));
    tree_.addLink(format("/sys/dev/char/%u:%u", kSerialMajor, minor), path);
    tree_.addText(format("/run/udev/data/c%u:%u", kSerialMajor, minor), kReadyEntry);
}

void ClassDeviceLayout::add(const std::string& parentPath, const std::vector<ClassDevice>& devices) {
    for (const ClassDevice& device : devices) {
        const std::string path =
            format("%s/%s/%s", parentPath.c_str(), device.className.c_str(), device.name.c_str());
        const std::string classFolder = "/sys/class/" + device.className;
        if (device.className == "net") {
            addNetworkInterface(path, device);
        } else if (device.className == "tty") {
            addSerialPort(path, device);
        } else {
            tree_.addWritable(path + "/uevent", "");
        }
        for (const auto& [name, text] : device.attributes) {
            tree_.addWritable(format("%s/%s", path.c_str(), name.c_str()), text);
        }
        tree_.addLink(path + "/subsystem", classFolder);
        tree_.addLink(path + "/device", parentPath);
        tree_.addLink(classFolder + "/" + device.name, path);
    }
}

void layOutPlatform(const MachineDescription& description, FileTree& tree, ClassDeviceLayout& classDevices) {
    for (const char* folder : {"/sys/class/net", "/sys/class/tty", "/sys/bus/platform/devices"}) {
        tree.addFolder(folder);
    }
    std::vector<PlatformDevice> devices = description.platformDevices;
    devices.push_back({.name = "ember/rttm", .attributes = {{"system_serial", description.serialNumber}}});
    devices.push_back(
        {.name = "ember-thermal",
         .classDevices = {
             {.className = "hwmon",
              .name = "hwmon0",
              .attributes = {{"name", "ember_thermal\n"},
                             {"temp1_input", format("%d\n", description.temperatureMilliCelsius)}}}}});
    for (const PlatformDevice& device : devices) {
        const std::string path = format("%s/%s", kPlatformFolder, device.name.c_str());
        const std::string name = device.name.substr(device.name.rfind('/') + 1);
        tree.addWritable(path + "/uevent", format("MODALIAS=platform:%s\n", name.c_str()));
        for (const auto& [attribute, text] : device.attributes) {
            tree.addWritable(format("%s/%s", path.c_str(), attribute.c_str()), text);
        }
        tree.addLink(path + "/subsystem", "/sys/bus/platform");
        tree.addLink("/sys/bus/platform/devices/" + name, path);
        classDevices.add(path, device.classDevices);
    }
    for (const auto& [name, text] : description.systemInformation) {
        tree.addWritable(std::string(kSystemInformationFolder) + "/" + name, text);
    }
}

}  // namespace kvsim
