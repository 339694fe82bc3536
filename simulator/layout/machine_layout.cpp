#include "layout/machine_layout.h"

#include "layout/format.h"

namespace kvsim {

void layOutCpus(unsigned count, FileTree& tree) {
    const std::string folder = "/sys/devices/system/cpu";
    const std::string all = count == 1 ? "0\n" : format("0-%u\n", count - 1);
    for (const char* list : {"/possible", "/present", "/online"}) {
        tree.addText(folder + list, all);
    }
    tree.addText(folder + "/offline", "\n");
    tree.addText(folder + "/kernel_max", "255\n");
    for (unsigned cpu = 0; cpu < count; ++cpu) {
        const std::string path = folder + format("/cpu%u", cpu);
        tree.addText(path + "/topology/core_id", format("%u\n", cpu));
        tree.addText(path + "/topology/physical_package_id", "0\n");
        if (cpu > 0) {  // the boot processor can't be switched off
            tree.addWritable(path + "/online", "1\n");
        }
    }
}

FileTree layOut(const MachineDescription& description) {
    FileTree tree;
    ClassDeviceLayout classDevices;
    layOutCpus(description.cpus, tree);
    layOutPci(description, tree, classDevices);
    layOutPlatform(description, tree, classDevices);
    layOutSoc(description, tree);
    layOutGpio(description.gpioChips, tree);
    tree.addFolder("/run/udev/data");
    tree.addLink("/dev/ptmx", "/dev/pts/ptmx");  // the device itself would look for its terminals on the desk
    for (const PlainFile& file : description.files) {
        tree.addWritable(file.path, file.text);
    }
    return tree;
}

}  // namespace kvsim
