#include "support/machine_test.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-device.h>

#include "os/pci_access.h"
#include "os/unique_fd.h"

namespace {

using kvsim::BarSpace;
using kvsim::Machine;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

/** A root port that leads to a switch with two boards behind it. */
Machine machineWithTwoBoards() {
    Machine machine;
    machine.addBridge({.slot = 1}, 1).expressCapability(2, 8);
    machine.addBridge({.bus = 1, .slot = 0}, 3).expressCapability(2, 8);
    machine
        .addPciFunction({.bus = 3, .slot = 4, .vendor = 0x1234, .device = 0x5678, .revision = 2, .irq = 40})
        .subsystem(0x4321, 0x8765)
        .driver("uio_kelvaro")
        .expressCapability(2, 4)
        .bar(0, 0xA0000000, 0x1000)
        .registers({{0x0, 0x0A180001}, {0xFFC, 0xCAFE}})
        .bar(1, 0xA0001100, 0x100)
        .registers({{0x4, 0xBEEF}})
        .bar(2, 0x4400000000, 0x100000, BarSpace::PrefetchableMemory)
        .bar(5, 0xC040, 0x40, BarSpace::Io)
        .networkInterface("eth1");
    machine.addPciFunction({.bus = 3, .slot = 5, .function = 1, .vendor = 0x1234, .device = 0x9999})
        .serialPort("ttyS4");
    return machine;
}

class SharedMapping {
 public:
    SharedMapping(const std::string& path, std::size_t sizeBytes, off_t offset) : sizeBytes_(sizeBytes) {
        const kv::os::UniqueFd file = kv::os::openFile(path, O_RDWR);
        address_ = ::mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), offset);
    }
    ~SharedMapping() { ::munmap(address_, sizeBytes_); }
    SharedMapping(const SharedMapping&) = delete;
    SharedMapping& operator=(const SharedMapping&) = delete;

    [[nodiscard]] bool isMapped() const { return address_ != MAP_FAILED; }
    volatile std::uint32_t& word(std::size_t offset) {
        return *reinterpret_cast<volatile std::uint32_t*>(static_cast<std::byte*>(address_) + offset);
    }

 private:
    std::size_t sizeBytes_;
    void* address_;
};

TEST(SimulatedMachine, ShowsLibpciTheFunctionsThatWereDescribed) {
    Machine machine = machineWithTwoBoards();
    ENTER_MACHINE(machine);

    const kv::os::PciAccessPtr access = kv::os::openPciAccess();
    pci_scan_bus(access.get());
    std::vector<int> slots;
    for (const pci_dev* device = access->devices; device != nullptr; device = device->next) {
        slots.push_back(device->bus << 16 | device->dev << 8 | device->func);
    }
    EXPECT_THAT(slots, UnorderedElementsAre(0x000100, 0x010000, 0x030400, 0x030501));

    const kv::os::PciDevicePtr owner = kv::os::getPciDevice(*access, 3, 4, 0);
    pci_dev* const board = owner.get();
    pci_fill_info(board, PCI_FILL_IDENT | PCI_FILL_BASES | PCI_FILL_SIZES | PCI_FILL_CLASS | PCI_FILL_IRQ);
    EXPECT_EQ(board->vendor_id, 0x1234);
    EXPECT_EQ(board->device_id, 0x5678);
    EXPECT_EQ(board->device_class, 0x1180);
    EXPECT_EQ(board->irq, 40);
    EXPECT_THAT(board->base_addr, ElementsAre(0xA0000000, 0xA0001100, 0x440000000C, 0, 0, 0xC041));
    EXPECT_THAT(board->size, ElementsAre(0x1000, 0x100, 0x100000, 0, 0, 0x40));
    EXPECT_EQ(pci_read_long(board, PCI_SUBSYSTEM_VENDOR_ID), 0x87654321U);
    const pci_cap* const express = pci_find_cap(board, PCI_CAP_ID_EXP, PCI_CAP_NORMAL);
    ASSERT_NE(express, nullptr);
    EXPECT_EQ(pci_read_word(board, express->addr + PCI_EXP_FLAGS) & PCI_EXP_FLAGS_VERS, 2);

    pci_write_word(board, PCI_COMMAND, 0x0406);
    EXPECT_EQ(machine.pci(3, 4).config16(PCI_COMMAND), 0x0406);
}

TEST(SimulatedMachine, NestsDevicesBehindTheirBridgesAndLinksTheirDriver) {
    Machine machine = machineWithTwoBoards();
    machine.addPciDriver("atemsys_pci");
    ENTER_MACHINE(machine);

    const std::string board = machine.pci(3, 4).path();
    EXPECT_EQ(std::filesystem::canonical(board),
              "/sys/devices/pci0000:00/0000:00:01.0/0000:01:00.0/0000:03:04.0");
    EXPECT_EQ(std::filesystem::canonical(board + "/driver"), "/sys/bus/pci/drivers/uio_kelvaro");
    EXPECT_TRUE(std::filesystem::equivalent("/sys/bus/pci/drivers/uio_kelvaro/0000:03:04.0", board));
    EXPECT_FALSE(std::filesystem::exists(machine.pci(3, 5, 1).path() + "/driver"));
    EXPECT_TRUE(std::filesystem::exists("/sys/bus/pci/drivers/atemsys_pci/new_id"));

    const std::string resource = Machine::read(board + "/resource");
    EXPECT_EQ(std::ranges::count(resource, '\n'), 13);
    EXPECT_THAT(resource, HasSubstr("\n0x0000004400000000 0x00000044000fffff 0x000000000014220c\n"));
}

TEST(SimulatedMachine, KeepsABarWhereItsAddressAllowsToMapIt) {
    Machine machine = machineWithTwoBoards();
    ENTER_MACHINE(machine);
    const auto board = machine.pci(3, 4);

    SharedMapping aligned(board.path() + "/resource0", 0x1000, 0);
    ASSERT_TRUE(aligned.isMapped());
    EXPECT_EQ(aligned.word(0), 0x0A180001U);
    EXPECT_EQ(aligned.word(0xFFC), 0xCAFEU);
    aligned.word(0x10) = 77;
    EXPECT_EQ(board.barWord(0, 0x10), 77U);

    SharedMapping inItsPage("/dev/mem", 0x200, 0xA0001000);
    ASSERT_TRUE(inItsPage.isMapped());
    EXPECT_EQ(inItsPage.word(0x104), 0xBEEFU);
    board.setBarWord(1, 0xFC, 78);
    EXPECT_EQ(inItsPage.word(0x1FC), 78U);
    EXPECT_EQ(std::filesystem::file_size(board.path() + "/resource1"), 0x100U);
    EXPECT_THROW(static_cast<void>(board.barWord(1, 0x100)), std::out_of_range);
    EXPECT_THROW(static_cast<void>(board.barWord(3, 0)), std::out_of_range);
}

TEST(SimulatedMachine, HasItsOwnCpusTemperatureAndNames) {
    Machine machine;
    machine.cpus(7).temperature(45123).serialNumber("i2001\n").systemInformation("kelvaro_version.txt",
                                                                                 "7.1\n");
    ENTER_MACHINE(machine);

    EXPECT_EQ(::sysconf(_SC_NPROCESSORS_CONF), 7);
    EXPECT_EQ(::sysconf(_SC_NPROCESSORS_ONLN), 7);
    EXPECT_EQ(Machine::read("/sys/class/hwmon/hwmon0/temp1_input"), "45123\n");
    EXPECT_EQ(Machine::read("/sys/devices/platform/ember/rttm/system_serial"), "i2001\n");
    EXPECT_EQ(Machine::read("/usr/kelvaro/sysinfo/kelvaro_version.txt"), "7.1\n");
    EXPECT_TRUE(std::filesystem::is_empty("/home/brvn/logs"));
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/kelvaro"));
    EXPECT_TRUE(std::filesystem::is_empty("/proc/irq"));
}

struct SdDeviceDeleter {
    void operator()(sd_device* device) const { sd_device_unref(device); }
    void operator()(sd_device_enumerator* enumerator) const { sd_device_enumerator_unref(enumerator); }
};
using SdDevice = std::unique_ptr<sd_device, SdDeviceDeleter>;
using SdEnumerator = std::unique_ptr<sd_device_enumerator, SdDeviceDeleter>;

SdEnumerator enumerate(const char* subsystem) {
    sd_device_enumerator* enumerator = nullptr;
    sd_device_enumerator_new(&enumerator);
    sd_device_enumerator_add_match_subsystem(enumerator, subsystem, 1);
    return SdEnumerator(enumerator);
}

std::vector<std::string> namesOf(sd_device_enumerator* enumerator) {
    std::vector<std::string> names;
    for (sd_device* device = sd_device_enumerator_get_device_first(enumerator); device != nullptr;
         device = sd_device_enumerator_get_device_next(enumerator)) {
        const char* name = nullptr;
        if (sd_device_get_devname(device, &name) >= 0 || sd_device_get_sysname(device, &name) >= 0) {
            names.emplace_back(name);
        }
    }
    return names;
}

TEST(SimulatedMachine, ShowsSdDeviceTheDevicesOfABoardAndOfTheChip) {
    Machine machine = machineWithTwoBoards();
    machine.addPlatformDevice(
        {.name = "axi/ff000000.serial",
         .classDevices = {
             {.className = "tty", .name = "ttyPS0", .attributes = {{"iomem_base", "0xFF000000\n"}}}}});
    machine.addPlatformDevice(
        {.name = "axi/ff0e0000.ethernet", .classDevices = {{.className = "net", .name = "end0"}}});
    ENTER_MACHINE(machine);

    sd_device* found = nullptr;
    ASSERT_GE(sd_device_new_from_subsystem_sysname(&found, "pci", "0000:03:04.0"), 0);
    const SdDevice board(found);
    const SdEnumerator interfaces = enumerate("net");
    sd_device_enumerator_add_match_parent(interfaces.get(), board.get());
    EXPECT_THAT(namesOf(interfaces.get()), ElementsAre("eth1"));

    const SdEnumerator ports = enumerate("tty");
    sd_device_enumerator_add_match_sysattr(ports.get(), "iomem_base", "0xFF000000", 1);
    EXPECT_THAT(namesOf(ports.get()), ElementsAre("/dev/ttyPS0"));

    ASSERT_GE(sd_device_new_from_subsystem_sysname(&found, "net", "end0"), 0);
    const SdDevice onboard(found);
    sd_device* parent = nullptr;
    const char* subsystem = nullptr;
    ASSERT_GE(sd_device_get_parent(onboard.get(), &parent), 0);
    ASSERT_GE(sd_device_get_subsystem(parent, &subsystem), 0);
    EXPECT_STREQ(subsystem, "platform");
}

TEST(SimulatedMachine, CanBeBrokenOnPurpose) {
    Machine machine;
    machine.addFile("/proc/irq/52/smp_affinity_list", "0-3\n");
    ENTER_MACHINE(machine);
    const std::string temperature = "/sys/class/hwmon/hwmon0/temp1_input";

    EXPECT_EQ(Machine::read("/proc/irq/52/smp_affinity_list"), "0-3\n");
    Machine::write(temperature, "");
    EXPECT_EQ(Machine::read(temperature), "");
    Machine::replaceByFolder(temperature);
    EXPECT_THROW(static_cast<void>(Machine::read(temperature)), std::system_error);
    Machine::remove("/sys/class/hwmon");
    EXPECT_FALSE(std::filesystem::exists("/sys/class/hwmon"));
    EXPECT_THROW(Machine::remove("/sys/no/such/file"), std::system_error);
}

}  // namespace
