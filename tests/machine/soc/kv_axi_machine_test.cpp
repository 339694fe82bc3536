// The library on a machine whose fabric is there: devices, interrupts and the loader answer.

#include <sys/mman.h>
#include <unistd.h>

#include "soc_machine.h"
#include "support/machine_temporary_folder.h"

using kvsim::Machine;

namespace {

constexpr std::uint64_t kPage = 4096;

class Fabric : public kv::test::SocMachine {
 protected:
    void SetUp() override {
        ::alarm(20);
        machine_.addAxiDevice(
            {.name = "pwm",
             .irq = 89,
             .maps = {
                 {.name = "pwm", .address = 0x80000000, .sizeBytes = kPage, .registers = {{0x4, 100000}}}}});
        machine_.addAxiDevice({.name = "encoder",
                               .irq = 90,
                               .maps = {{.name = "control", .address = 0x80010000, .sizeBytes = kPage},
                                        {.name = "counts",
                                         .address = 0x80020000,
                                         .sizeBytes = 2 * kPage,
                                         .offset = kPage,
                                         .registers = {{0x1008, 4096}}}}});
        ENTER_MACHINE(machine_);
    }
};

TEST_F(Fabric, HasItsRegistersWhereTheLibraryMapsThem) {
    kv_AxiDevice pwm{};
    kv_AxiDevice encoder{};
    ASSERT_EQ(kv_findAxiDevice(&pwm, "pwm"), 0);
    ASSERT_EQ(kv_findAxiDevice(&encoder, "encoder"), 0);
    EXPECT_EQ(encoder.uioIndex, 1);
    EXPECT_STREQ(encoder.uioDevPath, "/dev/uio1");

    const auto word = [](uintptr_t map, unsigned offset) -> volatile uint32_t& {
        return *reinterpret_cast<volatile uint32_t*>(map + offset);
    };
    const uintptr_t period = kv_mapAxiBar(&pwm, 0);
    const uintptr_t counts = kv_mapAxiBar(&encoder, 1);
    ASSERT_NE(period, 0U);
    ASSERT_NE(counts, 0U);
    EXPECT_EQ(word(period, 4), 100000U);
    EXPECT_EQ(word(counts, 0x1008), 4096U) << "in the second page of the second map";

    const uintptr_t again = kv_mapAxiBar(&encoder, 1);
    word(counts, 0x1FFC) = 7;
    EXPECT_EQ(word(again, 0x1FFC), 7U) << "the mappings are of one device";
    EXPECT_EQ(kv_mapAxiBar(&encoder, 2), 0U);
    ::munmap(reinterpret_cast<void*>(period), kPage);
    ::munmap(reinterpret_cast<void*>(counts), 2 * kPage);
    ::munmap(reinterpret_cast<void*>(again), 2 * kPage);
}

TEST_F(Fabric, LetsItsInterruptsBeBoundToOneProcessor) {
    const std::string list = "/proc/irq/90/smp_affinity_list";
    EXPECT_EQ(kv_setAxiIrqAffinity("encoder", 2), 0);
    EXPECT_EQ(Machine::read(list), "2\n");
    EXPECT_EQ(Machine::read("/proc/irq/90/smp_affinity"), "4\n");
    EXPECT_EQ(Machine::read("/proc/irq/89/smp_affinity_list"), "0-3\n") << "the other one's";

    EXPECT_EQ(kv_setAxiIrqAffinity("encoder", 4), -1) << "no such processor";
    EXPECT_STREQ(pKvErrorStr, "Failed to set IRQ 90 affinity to CPU 4: Numerical result out of range");
    EXPECT_EQ(Machine::read(list), "2\n");

    EXPECT_EQ(kv_setAxiIrqAffinity("encoder", 1), 0);
    EXPECT_EQ(kv_setAxiIrqAffinity("encoder", 3), 0);
    EXPECT_EQ(Machine::read(list), "1\n") << "processor 1 keeps it";
}

TEST_F(Fabric, IsGivenBitstreams) {
    const kv::test::TemporaryFolder folder;
    const std::string bitstream = folder.write("motor control.bit", std::string(5000, 'b'));
    EXPECT_EQ(kv_loadOnChipBitstream(bitstream.c_str()), 0);
    EXPECT_EQ(kv_loadOnChipBitstream("/no/such.bit"), -1);
    EXPECT_EQ(Machine::read("/run/kvsim/bitstreams"), bitstream + " 5000\n");
}

}  // namespace
