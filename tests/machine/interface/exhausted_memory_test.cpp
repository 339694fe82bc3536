// Memory may run out at any allocation: each function of the library then fails as it says, and nothing is
// thrown into C.
#include <cerrno>

#include <boost/log/core.hpp>
#include <gtest/gtest.h>

#include <kv/hdlc.h>
#include <kv/lifecycle.h>
#include <kv/memory.h>
#include <kv/network.h>
#include <kv/pci.h>
#include <kv/serial.h>
#include <kv/soc.h>

#include "equipped_machine.h"
#include "support/child_process.h"
#include "support/failing_allocations.h"
#include "support/machine_test.h"

namespace {

using namespace kv::test;

kv_PCIDevice board{};
kv_PCIDevice unserved{};
kv_PCIDevice serialCard{};
kv_AxiDevice encoder{};
kv_InterruptContext* interrupt = nullptr;
kv_udmabuf_Handle* buffer = nullptr;
char text[64];
uintptr_t physical = 0;

constexpr auto kAny = KV_PCI_ANY_SUBSYSTEM;

struct Row {
    const char* function;
    /** Whether it gave its failure value; one without a result gives it where an allocation failed. */
    bool (*fails)();
};

const Row kRows[] = {
    {"kv_findAxiDevice", [] { return kv_hdlc_findAxiDevice_v25a(&encoder, "encoder") == -1; }},
    {"kv_mapAxiBar", [] { return kv_hdlc_mapAxiBar_v25a(&encoder, 0) == 0; }},
    {"kv_setAxiIrqAffinity", [] { return kv_setAxiIrqAffinity("encoder", 2) == -1; }},
    {"kv_loadOnChipBitstream", [] { return kv_hdlc_loadOnChipBitstream_v25a(kBitstream) == -1; }},
    {"kv_uio_bindDeviceToUio", [] { return kv_uio_bindDeviceToUio(&board) == -1; }},
    {"kv_uio_createInterruptContext", [] { return kv_uio_createInterruptContext(&interrupt, &board) == -1; }},
    {"kv_uio_interruptAttach", [] { return kv_uio_interruptAttach(interrupt) == -ENOMEM; }},
    {"kv_udmabuf_allocBuffer", [] { return kv_udmabuf_allocBuffer(kPageBytes) == nullptr; }},
    {"kv_udmabuf_freeBuffer", [] { return kv_udmabuf_freeBuffer(buffer) == -1; }},
    {"kv_allocPhysicalMemory_v2_uncached",
     [] { return kv_allocPhysicalMemory_v2_uncached(kPageBytes, &physical) == nullptr; }},
    {"kv_allocPhysicalMemory_v2",
     [] { return kv_hdlc_allocPhysicalMemory_v2_v22b(kPageBytes, &physical) == nullptr; }},
    {"kv_udmabuf_allocCachedBuffer",
     [] { return kv_udmabuf_allocCachedBuffer(kPageBytes, &physical) == nullptr; }},
    {"kv_allocPersistentMemory", [] { return kv_allocPersistentMemory("counter", 8) == nullptr; }},
    {"kv_getPersistentMemory", [] { return kv_getPersistentMemory("counter") == nullptr; }},
    {"kv_findSerialDeviceByPci",
     [] { return kv_findSerialDeviceByPci(&serialCard, 0, text, sizeof text) == -2; }},
    {"kv_pci_bindDriver", [] { return kv_pci_bindDriver(&unserved, "uio_kelvaro") == -1; }},
    {"kv_findPciDeviceMultiIDs",
     [] {
         uint16_t vendor = kVendor;
         uint16_t device = kAnalogBoard;
         uint16_t any = kAny;
         return kv_findPciDeviceMultiIDs(&board, "board", 1, &vendor, &device, &any, &any, 1, 0, -1) == 1;
     }},
    {"kv_translateEthernetInterfaces", [] { return kv_translateEthernetInterfaces() == -1; }},
    {"kv_checkModelInit counts it as a model load",
     [] { return kv_checkModelInit(), kv_isModelInit() == 1; }},
    {"kv_tagModelRun", [] { return kv_tagModelRun() == 1; }},
    {"kv_add_start_callback",
     [] { return kv_hdlc_add_start_callback_v26a([](void*) {}, nullptr, 1), allocationFailed; }},
    {"kv_freePersistentMemory", [] { return kv_freePersistentMemory(), allocationFailed; }},
};

enum Outcome { kFailedAsItSays, kSucceeded, kWrong };

/** Calls it in a process of its own, in which a number of allocations succeed. */
int outcomeWith(int allocations, const Row& row) {
    const pid_t child = ::fork();
    if (child == 0) {
        allocationsLeft = allocations;
        const bool failed = row.fails();
        ::_exit(failed != allocationFailed ? kWrong : failed ? kFailedAsItSays : kSucceeded);
    }
    const int status = waitFor(child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : kWrong;
}

TEST(ExhaustedMemory, MakesEachFunctionFailAsItSaysWhicheverAllocationFails) {
    kvsim::Machine machine = equippedMachine();
    ENTER_MACHINE(machine);
    kvsim::Machine::write("/tmp/kelvaro/model_uuid",
                          "1234\n");  // as ../misc/UUID: the restart of the same model
    boost::log::core::get()->set_logging_enabled(false);
    serialCard.slot = kSerialSlot;
    unserved.bus = kDigitalBus;
    ASSERT_EQ(kv_findAxiDevice(&encoder, "encoder"), 0);
    ASSERT_EQ(kvPCI_getDeviceAtSlot(kVendor, kAnalogBoard, kAny, kAny, 9, 0, &board), 0);
    ASSERT_EQ(kv_uio_createInterruptContext(&interrupt, &board), 0);
    buffer = kv_udmabuf_allocBuffer(kPageBytes);
    ASSERT_NE(buffer, nullptr);
    for (const Row& row : kRows) {
        int allocations = 0;
        int outcome = kFailedAsItSays;
        while ((outcome = outcomeWith(allocations, row)) == kFailedAsItSays) {
            ++allocations;
        }
        EXPECT_EQ(outcome, kSucceeded) << row.function << ", allocation " << allocations + 1;
        EXPECT_GT(allocations, 0) << row.function << " allocates nothing";
    }
}

}  // namespace
