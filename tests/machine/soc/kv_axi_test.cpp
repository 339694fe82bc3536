#include <sys/mman.h>

#include "soc_machine.h"

using kvsim::Machine;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::string kUio = "/sys/class/uio/uio";

std::string ofMap1(const std::string& attribute) {
    return "/sys/class/uio/uio2/maps/map1/" + attribute;
}

/** A fabric with the devices alpha and beta, and a device without a name between them. */
class AxiDevices : public kv::test::SocMachine {
 protected:
    void SetUp() override {
        const char* names[] = {"alpha\n", " \n", "beta second word\n"};
        for (int n = 0; n < 3; ++n) {
            machine_.addFile(kUio + std::to_string(n) + "/name", names[n]);
        }
        machine_.addFile(kUio + "4/name", "behind a gap\n");
        machine_.addFile(ofMap1("addr"), "0x00000000a0000000\n");
        machine_.addFile(ofMap1("offset"), "0x1000\n");
        machine_.addFile(ofMap1("size"), "0x2000\n");
        machine_.addFile("/dev/uio2", std::string(4096, 'a') + std::string(8192, 'b'));
        ENTER_MACHINE(machine_);
        before_ = openFiles();
    }
    void TearDown() override {
        if (!IsSkipped()) {
            EXPECT_EQ(openFiles(), before_);
            EXPECT_THAT(log_.take(), IsEmpty());
        }
    }

    void expectUnmapped(const std::string& reason, uint32_t map = 1) {
        EXPECT_EQ(kv_mapAxiBar(&device_, map), 0U);
        EXPECT_EQ(pKvErrorStr, reason);
    }

    kv_AxiDevice device_{.uioIndex = 2, .uioDevPath = "/dev/uio2"};
    long before_ = 0;
};

TEST_F(AxiDevices, AreFoundByTheFirstWordOfTheirName) {
    EXPECT_EQ(kv_findAxiDevice(&device_, "alpha"), 0);
    EXPECT_EQ(device_.uioIndex, 0);
    EXPECT_STREQ(device_.uioDevPath, "/dev/uio0");
    EXPECT_EQ(kv_findAxiDevice(&device_, "beta"), 0);
    EXPECT_EQ(device_.uioIndex, 2);
    EXPECT_STREQ(device_.uioDevPath, "/dev/uio2");
    for (const char* absent : {"gamma", "Alpha", "bet", "behind"}) {
        EXPECT_EQ(kv_findAxiDevice(&device_, absent), -1);
        EXPECT_EQ(pKvErrorStr, std::string("Could not find ") + absent);
        EXPECT_EQ(device_.uioIndex, 2) << "the record stays as it was";
    }
}

TEST_F(AxiDevices, AreSoughtUpToANameThatCannotBeRead) {
    Machine::replaceByFolder(kUio + "0/name");
    EXPECT_EQ(kv_findAxiDevice(&device_, "beta"), 0) << "what has no text has an empty name";
    makeUnopenable(kUio + "1/name");
    EXPECT_EQ(kv_findAxiDevice(&device_, "beta"), -1);
    EXPECT_STREQ(pKvErrorStr, "Failed to read /sys/class/uio/uio1/name");
}

TEST_F(AxiDevices, AreMappedWhereTheirAttributesSay) {
    const uintptr_t address = kv_mapAxiBar(&device_, 1);
    ASSERT_NE(address, 0U);
    EXPECT_THAT(Machine::read("/proc/self/maps"),
                HasSubstr(kv::utils::formatString("%lx-%lx rw-s 00001000 ", address, address + 0x2000)));
    auto* bytes = reinterpret_cast<volatile char*>(address);
    EXPECT_EQ(bytes[0], 'b') << "the offset is the attribute's";
    bytes[0] = 'c';
    EXPECT_EQ(Machine::read("/dev/uio2")[4096], 'c') << "the mapping is shared";
    ::munmap(reinterpret_cast<void*>(address), 0x2000);
}

TEST_F(AxiDevices, AreNotMappedWithoutAllAttributes) {
    expectUnmapped("Could not find /sys/class/uio/uio2/maps/map0/addr", 0);
    makeUnopenable(ofMap1("size"));
    expectUnmapped("Failed to read " + ofMap1("size"));
    Machine::remove(ofMap1("offset"));
    expectUnmapped("Could not find " + ofMap1("offset"));
}

TEST_F(AxiDevices, AreNotMappedWhereTheKernelRefuses) {
    for (const char* noNumber : {"", "4096\n", "none\n"}) {
        Machine::write(ofMap1("size"), noNumber);
        expectUnmapped("Failed to map memory: Invalid argument");
        EXPECT_EQ(openFiles(), ++before_) << "the device stays open";
    }
    Machine::remove("/dev/uio2");
    expectUnmapped("Failed to open /dev/uio2: No such file or directory");
}

/** Interrupt 45 serves the device alpha, 7 does not, and what else lies about is no interrupt's. */
class AxiAffinity : public kv::test::SocMachine {
 protected:
    void SetUp() override {
        machine_.addFile("/proc/irq/7/smp_affinity_list", "0-3\n");
        machine_.addFile("/proc/irq/7/alpha", "a file is no handler");
        machine_.addFile("/proc/irq/45x/alpha/folder", "");
        machine_.addFile("/proc/irq/45/alpha/folder", "");
        machine_.addFile(kList, "0-3\n");
        ENTER_MACHINE(machine_);
    }

    static void expectFailure(const char* name, int error, const std::string& text) {
        errno = 0;
        const auto before = openFiles();
        EXPECT_EQ(kv_setAxiIrqAffinity(name, 2), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(pKvErrorStr, text);
        EXPECT_EQ(openFiles(), before);
    }

    static constexpr const char* kList = "/proc/irq/45/smp_affinity_list";
};

TEST_F(AxiAffinity, IsRewrittenUnlessTheInterruptIsOnProcessor1) {
    const struct {
        const char* list;
        int cpu;
        const char* afterwards;
    } cases[] = {{"0-3\n", 2, "2\n"},   {"0\n", 3, "3\n"}, {"1-3\n", 2, "2\n"},           {"11\n", 0, "0\n"},
                 {"\n", 2, "2\n"},      {"1\n", 3, "1\n"}, {" \t1 \r\n", 3, " \t1 \r\n"}, {"1", 3, "1"},
                 {"0-3\n", -1, "0-3\n"}};
    for (const auto& each : cases) {
        Machine::write(kList, each.list);
        EXPECT_EQ(kv_setAxiIrqAffinity("alpha", each.cpu), 0);
        EXPECT_EQ(Machine::read(kList), each.afterwards) << each.list << " for " << each.cpu;
    }
    EXPECT_EQ(Machine::read("/proc/irq/7/smp_affinity_list"), "0-3\n");
}

TEST_F(AxiAffinity, NeedsAnInterruptWithThatHandler) {
    expectFailure(nullptr, EINVAL, "Invalid AXI device name");
    expectFailure("", EINVAL, "Invalid AXI device name");
    expectFailure("beta", ENOENT, "Failed to get IRQ number for AXI device beta");
    const std::string tooLong(512, 'n');
    expectFailure(tooLong.c_str(), ENOENT,
                  ("Failed to get IRQ number for AXI device " + tooLong).substr(0, KV_ERROR_STR_SIZE - 1));
}

TEST_F(AxiAffinity, TellsWhyTheListCannotBeChanged) {
    const std::string text = "Failed to set IRQ 45 affinity to CPU 2: ";
    Machine::write(kList, "");
    expectFailure("alpha", EIO, text + "Input/output error");
    Machine::replaceByFolder(kList);
    expectFailure("alpha", EISDIR, text + "Is a directory");
    makeFull(kList);
    expectFailure("alpha", ENOSPC, text + "No space left on device");
    Machine::remove(kList);
    expectFailure("alpha", ENOENT, text + "No such file or directory");
}

}  // namespace
