#include "layout/character_device.h"
#include "layout/format.h"
#include "layout/machine_layout.h"

namespace kvsim {

namespace {

constexpr const char* kPlatformFolder = "/sys/devices/platform";
constexpr const char* kSystemInformationFolder = "/usr/kelvaro/sysinfo";

}  // namespace

void ClassDeviceLayout::addNetworkInterface(const std::string& path, const ClassDevice& device,
                                            FileTree& tree) {
    const unsigned index = nextInterfaceIndex_++;
    tree.addText(path + "/ifindex", format("%u\n", index));
    tree.addText(path + "/address", format("02:00:00:00:00:%02x\n", index & 0xFF));
    tree.addText(path + "/type", "1\n");
    tree.addText(path + "/operstate", "up\n");
    tree.addWritable(path + "/uevent", format("INTERFACE=%s\nIFINDEX=%u\n", device.name.c_str(), index));
    tree.addText(format("/run/udev/data/n%u", index), kReadyEntry);
}

void ClassDeviceLayout::addSerialPort(const std::string& path, const ClassDevice& device, FileTree& tree) {
    addCharacterDevice(path, device.name, kTtyMajor, nextSerialMinor_++, tree);
}

void ClassDeviceLayout::add(const std::string& parentPath, const std::vector<ClassDevice>& devices,
                            FileTree& tree) {
    for (const ClassDevice& device : devices) {
        const std::string path =
            format("%s/%s/%s", parentPath.c_str(), device.className.c_str(), device.name.c_str());
        const std::string classFolder = "/sys/class/" + device.className;
        if (device.className == "net") {
            addNetworkInterface(path, device, tree);
        } else if (device.className == "tty") {
            addSerialPort(path, device, tree);
        } else {
            tree.addWritable(path + "/uevent", "");
        }
        for (const auto& [name, text] : device.attributes) {
            tree.addWritable(format("%s/%s", path.c_str(), name.c_str()), text);
        }
        tree.addLink(path + "/subsystem", classFolder);
        tree.addLink(path + "/device", parentPath);
        tree.addLink(classFolder + "/" + device.name, path);
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
        classDevices.add(path, device.classDevices, tree);
    }
    for (const auto& [name, text] : description.systemInformation) {
        tree.addWritable(std::string(kSystemInformationFolder) + "/" + name, text);
    }
}

}  // namespace kvsim
