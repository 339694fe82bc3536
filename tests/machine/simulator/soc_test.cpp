// What the machine has of a chip: devices of the fabric, their interrupts, the loader of bitstreams.

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "os/sd_device.h"
#include "os/unique_fd.h"
#include "support/machine_temporary_folder.h"
#include "support/machine_test.h"
#include "support/shell.h"

namespace {

using kv::os::openFile;
using kv::test::shell;
using kvsim::Machine;

constexpr std::size_t kPage = 4096;

class SocOfTheMachine : public testing::Test {
 protected:
    void SetUp() override { ::alarm(20); }

    Machine machine_;
};

TEST_F(SocOfTheMachine, ShowsAxiDevicesAsUioDevicesInTheOrderOfTheDescription) {
    machine_.addAxiDevice(
        {.name = "pwm",
         .irq = 89,
         .maps = {
             {.name = "control", .address = 0x80000000, .sizeBytes = kPage},
             {.name = "table",
              .address = 0x80010000,
              .sizeBytes = 2 * kPage,
              .offset = kPage,
              .registers = {{0x1FFC, 0xCAFE}}},
             {.name = "alias", .address = 0x80020000, .sizeBytes = kPage, .registers = {{0x8, 0xBEEF}}}}});
    machine_.addAxiDevice({.name = "encoder", .irq = 0, .maps = {}});
    ENTER_MACHINE(machine_);

    const std::string uio = "/sys/class/uio/uio0/";
    EXPECT_EQ(Machine::read(uio + "name"), "pwm\n");
    EXPECT_EQ(Machine::read(uio + "maps/map1/name"), "table\n");
    EXPECT_EQ(Machine::read(uio + "maps/map1/addr"), "0x0000000080010000\n");
    EXPECT_EQ(Machine::read(uio + "maps/map1/size"), "0x0000000000002000\n");
    EXPECT_EQ(Machine::read(uio + "maps/map1/offset"), "0x1000\n");
    EXPECT_EQ(Machine::read("/sys/class/uio/uio1/name"), "encoder\n");

    const auto device = kv::os::findDevice("uio", "uio0");
    ASSERT_NE(device, nullptr);
    EXPECT_STREQ(kv::os::nodeOf(*device), "/dev/uio0");
    sd_device* parent = nullptr;
    const char* name = nullptr;
    ASSERT_GE(sd_device_get_parent_with_subsystem_devtype(device.get(), "platform", nullptr, &parent), 0);
    ASSERT_GE(sd_device_get_sysname(parent, &name), 0);
    EXPECT_STREQ(name, "80000000.pwm");

    const auto file = openFile("/dev/uio0", O_RDWR);
    void* const memory = ::mmap(nullptr, 3 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    EXPECT_EQ(static_cast<std::uint32_t*>(memory)[(kPage + 0x1FFC) / 4], 0xCAFEU);
    EXPECT_EQ(static_cast<std::uint32_t*>(memory)[2], 0xBEEFU) << "two maps at one offset are one memory";
    EXPECT_EQ(std::filesystem::file_size("/dev/uio0"), 3 * kPage);
    ::munmap(memory, 3 * kPage);
}

/** @return 0 or an error number */
int store(const std::string& path, const std::string& text) {
    const auto file = openFile(path, O_WRONLY | O_TRUNC);
    return ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
}

TEST_F(SocOfTheMachine, LetsProgramsChooseWhichCpusServeAnInterrupt) {
    machine_.addAxiDevice({.name = "pwm", .irq = 89, .maps = {}});
    machine_.addPciFunction({.slot = 1, .vendor = 0x1b5a, .device = 1}).irq(40).driver("igb");
    machine_.addPciFunction({.slot = 2, .vendor = 0x1b5a, .device = 1});
    ENTER_MACHINE(machine_);
    EXPECT_TRUE(std::filesystem::is_directory("/proc/irq/89/pwm"));
    EXPECT_TRUE(std::filesystem::is_directory("/proc/irq/40/igb"));
    EXPECT_FALSE(std::filesystem::exists("/proc/irq/0"));

    const std::string list = "/proc/irq/89/smp_affinity_list";
    const std::string mask = "/proc/irq/89/smp_affinity";
    EXPECT_EQ(Machine::read(list), "0-3\n");
    EXPECT_EQ(Machine::read(mask), "f\n");
    const struct {
        const std::string& path;
        const char* text;
        const char* list;
        const char* mask;
    } taken[] = {{list, "1\n", "1\n", "2\n"},         {list, "0-1,3", "0-1,3\n", "b\n"},
                 {list, "0,2-N\n", "0,2-3\n", "d\n"}, {list, "all", "0-3\n", "f\n"},
                 {mask, "6\n", "1-2\n", "6\n"},       {mask, "00000001", "0\n", "1\n"}};
    for (const auto& each : taken) {
        EXPECT_EQ(store(each.path, each.text), 0) << each.text;
        EXPECT_EQ(Machine::read(list), each.list) << each.text;
        EXPECT_EQ(Machine::read(mask), each.mask) << each.text;
    }
    EXPECT_EQ(store(list, "\n"), EINVAL);
    EXPECT_EQ(store(list, "4\n"), ERANGE) << "no CPU of the machine";
    EXPECT_EQ(store(list, "2-9\n"), ERANGE);
    EXPECT_EQ(store(list, "all of them\n"), EINVAL);
    EXPECT_EQ(store(mask, "10\n"), EOVERFLOW);
    EXPECT_EQ(store(mask, "0,00000001\n"), EOVERFLOW);
    EXPECT_EQ(Machine::read(list), "0\n");
    EXPECT_EQ(Machine::read("/proc/irq/40/smp_affinity_list"), "0-3\n");
}

TEST_F(SocOfTheMachine, RecordsTheBitstreamsThatItIsGiven) {
    const kv::test::TemporaryFolder folder;
    const std::string bitstream = folder.write("my $motor.bit", std::string(1234, 'b'));
    ENTER_MACHINE(machine_);
    EXPECT_EQ(shell("sudo kv_load-bitstream '" + bitstream + "'").output, "");
    const auto missing = shell("sudo kv_load-bitstream /no/such.bit");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output, "kv_load-bitstream: cannot read '/no/such.bit'\n");
    EXPECT_EQ(shell("kv_load-bitstream /tmp").status, 1);
    EXPECT_EQ(Machine::read("/run/kvsim/bitstreams"), bitstream + " 1234\n");
}

}  // namespace
