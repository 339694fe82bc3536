// Workers of models are cancelled at any time: each function of the library that can reach a cancellation
// point is called by workers that are.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/log/core.hpp>
#include <boost/log/keywords/file_name.hpp>
#include <boost/log/keywords/rotation_size.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/lifecycle.h>
#include <kv/memory.h>
#include <kv/network.h>
#include <kv/pci.h>
#include <kv/process.h>
#include <kv/registry.h>
#include <kv/serial.h>
#include <kv/soc.h>
#include <kv/target.h>
#include <kv/threads.h>

#include "equipped_machine.h"
#include "os/mapping.h"
#include "support/machine_test.h"

namespace {

using namespace kv::test;

/** Where a cancellation that is pending when a call begins takes effect. */
enum Ends { kAfterTheCall, kInTheCall };

struct Row {
    const char* functions;
    /** Whether they did what they are for. Makes no other call that can be cancelled. */
    bool (*succeed)();
    Ends ends = kAfterTheCall;
};

kv_PCIDevice board{};
kv_PCIDevice unserved{};
kv_PCIDevice serialCard{};
kv_InterruptContext* interrupt = nullptr;
void* semaphore = nullptr;
char text[KV_LIB_VERSION_SIZE + 64];
uintptr_t physical = 0;
unsigned char mac[KV_MAC_SIZE];
uint32_t configuration[8];

bool isFile(int fd) {
    return fd >= 0 && ::syscall(SYS_close, fd) == 0;
}
bool isMapping(void* address) {
    return address != nullptr && ::munmap(address, kPageBytes) == 0;
}
bool isBuffer(void* buffer) {
    kv_freePhysicalMemory(buffer);
    return buffer != nullptr;
}
void nothing(void* /*argument*/) {}

constexpr auto kAny = KV_PCI_ANY_SUBSYSTEM;

const Row kRows[] = {
    {"kv_printf", [] { return kv_printf(kv_error, "busy\n"), true; }, kInTheCall},
    {"kv_log", [] { return kv_log(kv_info, "busy"), true; }},

    {"kv_inpB to kv_outpDW",
     [] {
         return kv_outpB(0, 0), kv_outpW(0, 0), kv_outpDW(0, 0), kv_inpB(0) + kv_inpW(0) + kv_inpDW(0) == 0;
     }},
    {"kv_createThread, kv_destroyThread",
     [] {
         void* const thread = kv_createThread([](void* argument) { return ::pause(), argument; }, nullptr);
         return thread == nullptr || kv_destroyThread(thread) == 0;  // made only with real-time rights
     }},
    {"kv_setPidPriority", [] { return kv_setPidPriority(0, 500) == -1; }},
    {"kv_pickNextAsyncCpu", [] { return kv_pickNextAsyncCpu() >= 2; }},
    {"kv_pinThreadExclusiveCpu", [] { return kv_pinThreadExclusiveCpu(0) >= 0; }},
    {"kv_wait_s", [] { return kv_wait_s(0.001), true; }, kInTheCall},
    {"kv_waitForSemaphore", [] { return kv_waitForSemaphore(semaphore) == 0; }, kInTheCall},
    {"kv_waitForBaseRateSync", [] { return kv_waitForBaseRateSync() == -1; }, kInTheCall},

    {"kv_fs_checkDir, kv_fs_ensureDirExists",
     [] { return kv_fs_checkDir("/nowhere") == -1 && kv_fs_ensureDirExists("/tmp") == 0; }},
    {"kv_openAsRoot", [] { return isFile(kv_openAsRoot("/dev/null", O_RDWR)); }},
    {"kv_spawnExecutable", [] { return kv_spawnExecutable("/nowhere", "program", "-x") == -1; }},
    {"kv_getLibVersion", [] { return kv_getLibVersion(text) == 0; }},

    {"kv_checkModelInit", [] { return kv_checkModelInit(), kv_isModelInit() == 1; }},
    {"kv_tagModelRun, kv_tagModelAtExit", [] { return kv_tagModelAtExit(), kv_tagModelRun() == 0; }},
    {"kv_add_exit_handler, kv_exit_handler",
     [] { return kv_add_exit_handler(nothing, nullptr), kv_exit_handler(), true; }},

    {"the registry, which holds nothing back",
     [] {
         auto* const module = kv_module_register(7, 1);
         auto* const block = kv_block_register(module, 2, 5);
         kv_block_unregister(module, 2, 5);
         kv_module_unregister(7, 1);
         return module != nullptr && block != nullptr;
     }},

    {"kv_getPciTopology, kv_printPciTopology",
     [] {
         const kv::OwnedTopology bus(9);
         kv_printPciTopology(bus.nodes(), static_cast<uint32_t>(bus.count()));
         return bus.count() == 1 && kv::OwnedTopology().count() > 0;
     }},
    {"kvPCI_getDeviceByIdx",
     [] { return kvPCI_getDeviceByIdx(kVendor, kAnalogBoard, kAny, kAny, 1, &board) == 0; }},
    {"kvPCI_getDeviceAtSlot",
     [] { return kvPCI_getDeviceAtSlot(kVendor, kAnalogBoard, kAny, kAny, 9, 0, &board) == 0; }},
    {"kv_findPciDevice",
     [] { return kv_findPciDevice(&board, "board", kVendor, kAnalogBoard, kAny, kAny, 1, 9, 0) == 0; }},
    {"kv_detectPciDevice, kv_detectPciDeviceAtSlot",
     [] {
         return kv_detectPciDevice(&board, "board", kVendor, kAnalogBoard, kAny, kAny, 1) == 0 &&
                kv_detectPciDeviceAtSlot(&board, "board", kVendor, kAnalogBoard, kAny, kAny, 9, 0) == 0;
     }},
    {"kv_findPciDeviceMultiIDs",
     [] {
         uint16_t vendor = kVendor;
         uint16_t device = kAnalogBoard;
         uint16_t any = kAny;
         return kv_findPciDeviceMultiIDs(&board, "board", 1, &vendor, &device, &any, &any, 1, 0, -1) == 0;
     }},
    {"kv_mapMemory", [] { return isMapping(kv_mapMemory(&board, 0)); }},
    {"kv_mapIo, kv_showPciDevice", [] { return kv_showPciDevice(&board), kv_mapIo(&board, 0) == nullptr; }},
    {"kvPCI_backupPCIConfig, kvPCI_restorePCIConfig, kvPCI_printPCIConfig",
     [] {
         kvPCI_backupPCIConfig(&board, configuration);
         kvPCI_restorePCIConfig(&board, configuration);
         kvPCI_printPCIConfig(&board);
         return configuration[0] == board.BaseAddress_raw[0];
     }},
    {"kv_pci_openPciConfig", [] { return isFile(kv_pci_openPciConfig(&board, O_RDONLY)); }},
    {"kv_pci_unbindDriver, kv_pci_bindDriver, kv_pci_probeDriver",
     [] {
         return kv_pci_unbindDriver(&unserved) == 0 && kv_pci_bindDriver(&unserved, "uio_kelvaro") == 0 &&
                kv_pci_probeDriver(&unserved) == 0;
     }},

    {"kv_findAxiDevice, kv_mapAxiBar",
     [] {
         kv_AxiDevice encoder{};
         return kv_findAxiDevice(&encoder, "encoder") == 0 &&
                isMapping(kv::os::pointerTo(kv_mapAxiBar(&encoder, 0)));
     }},
    {"kv_setAxiIrqAffinity", [] { return kv_setAxiIrqAffinity("encoder", 1) == 0; }},
    {"kv_loadOnChipBitstream", [] { return kv_loadOnChipBitstream(kBitstream) == 0; }},
    {"kv_uio_bindDeviceToUio", [] { return kv_uio_bindDeviceToUio(&board) >= 0; }},
    {"kv_uio_interruptAttach to kv_uio_interruptDetach",
     [] {
         kv_InterruptContext* context = nullptr;
         const bool succeeded = kv_uio_createInterruptContext(&context, &board) == 0 &&
                                kv_uio_interruptAttach(context) == 0 && kv_uio_setIrqProps(context) == 0 &&
                                kv_uio_enableInterrupt(context) == 0 &&
                                kv_uio_interruptEnableFix(context) == 0;
         kv_uio_interruptDetach(context);
         return succeeded;
     }},
    {"kv_uio_interruptWait", [] { return kv_uio_interruptWait(interrupt) == 0; }, kInTheCall},

    {"kv_allocPhysicalMemory_uncached", [] { return kv_allocPhysicalMemory_uncached(1) == nullptr; }},
    {"kv_allocPhysicalMemory_v2_uncached",
     [] { return isBuffer(kv_allocPhysicalMemory_v2_uncached(kPageBytes, &physical)); }},
    {"kv_allocPhysicalMemory_v2", [] { return isBuffer(kv_allocPhysicalMemory_v2(kPageBytes, &physical)); }},
    {"kv_allocPhysicalMemory_v2_cached",
     [] { return isBuffer(kv_allocPhysicalMemory_v2_cached(kPageBytes, &physical)); }},
    {"kv_udmabuf_allocCachedBuffer, kv_udmabuf_freeCachedBuffer",
     [] { return kv_udmabuf_freeCachedBuffer(kv_udmabuf_allocCachedBuffer(kPageBytes, &physical)) == 0; }},
    {"kv_getPhysicalBufferAddr", [] { return kv_getPhysicalBufferAddr(text), true; }},
    {"kv_udmabuf_allocBuffer, kv_udmabuf_freeBuffer",
     [] {
         auto* const buffer = kv_udmabuf_allocBuffer(kPageBytes);
         return buffer != nullptr && kv_udmabuf_freeBuffer(buffer) == 0;
     }},
    {"kv_udmabuf_deleteAllBuffers", [] { return kv_udmabuf_deleteAllBuffers() == 0; }},
    {"kv_udmabuf_printCachedMemoryBuffers", [] { return kv_udmabuf_printCachedMemoryBuffers(), true; }},
    {"kv_allocPersistentMemory, kv_getPersistentMemory",
     [] {
         return kv_allocPersistentMemory("counter", 0) != nullptr &&
                kv_getPersistentMemory("counter") != nullptr;
     }},
    {"kv_freePersistentMemory", [] { return kv_freePersistentMemory(), true; }},

    {"kv_findSerialDeviceByPort",
     [] { return kv_findSerialDeviceByPort(0xFF000000, text, sizeof text) == 0; }},
    {"kv_findSerialDeviceByPci",
     [] { return kv_findSerialDeviceByPci(&serialCard, 1, text, sizeof text) == 0; }},
    {"kv_serial_port_open, kv_serial_port_close",
     [] { return kv_serial_port_open(1, O_RDWR) > 0 && kv_serial_port_close(1) == 0; }},
    {"kv_serial_device_open, kv_serial_device_close",
     [] { return kv_serial_device_open(1) > 0 && kv_serial_device_close(1) == 0; }},
    {"kv_serial_device_config", [] { return kv_serial_device_config(1, B115200, 4, None, 1, 0) == 0; }},
    {"kv_serial_device_set_mode", [] { return kv_serial_device_set_mode(1, 3) == 0; }},
    {"kv_serial_device_set_termination", [] { return kv_serial_device_set_termination(1, 1) == 0; }},
    {"kv_serial_device_flush that drops", [] { return kv_serial_device_flush(1, 3) == 0; }},
    {"kv_serial_device_flush that drains", [] { return kv_serial_device_flush(1, 0) == 0; }, kInTheCall},

    {"kv_getCpuTemperature", [] { return kv_getCpuTemperature() == 45; }},
    {"kv_getSerialNumber, kv_getSerialNumberInternal, kv_getSerialNumberSupplier",
     [] {
         return kv_getSerialNumber() == 40127 && kv_getSerialNumberInternal() == -1 &&
                kv_getSerialNumberSupplier() == -1;
     }},
    {"kv_getTargetScreenLine1, kv_getTargetScreenLine2",
     [] { return !kv_getTargetScreenLine1().empty() && !kv_getTargetScreenLine2().empty(); }},
    {"kv_getTargetTimeNum", [] { return kv_getTargetTimeNum() > 730000; }},
    {"print_dt, print_ds",
     [] {
         DateTime_T point{};
         DateStr_T words{};
         return print_dt(&point) == 0 && print_ds(&words) == 0;
     }},

    {"kv_target_getHostLinkMac", [] { return kv_target_getHostLinkMac(mac) == 0; }},
    {"kv_configureEthercat, kv_teardownEthercat",
     [] { return kv_configureEthercat(0) == 0 && kv_teardownEthercat(0) == 0; }},
    {"kv_translateEthernetInterfaces", [] { return kv_translateEthernetInterfaces() == 0; }},
};

/** One worker, and how it got on. */
struct Worker {
    const Row* row;
    bool cancelsItselfFirst;
    std::atomic<bool> started = false;
    int calls = 0;
    bool succeeded = true;
};

void* work(void* argument) {
    auto& worker = *static_cast<Worker*>(argument);
    if (worker.cancelsItselfFirst) {
        pthread_cancel(pthread_self());
    }
    worker.started = true;
    for (;;) {
        worker.succeeded = worker.row->succeed() && worker.succeeded;
        ++worker.calls;
        pthread_testcancel();
    }
}

void runAndCancel(Worker& worker) {
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, work, &worker), 0);
    while (!worker.started) {
        sched_yield();
    }
    if (!worker.cancelsItselfFirst) {
        pthread_cancel(thread);  // wherever it is
    }
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(worker.succeeded);
    if (worker.cancelsItselfFirst) {
        EXPECT_EQ(worker.calls, worker.row->ends == kAfterTheCall ? 1 : 0);
    }
}

auto openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/** Of files and devices: those of threads and of the allocator come and go, freed persistent memory stays. */
std::string mappings() {
    std::ifstream file("/proc/self/maps");
    std::string found;
    for (std::string line; std::getline(file, line);) {
        const bool isOfFile = line.find('/') != std::string::npos && !line.ends_with("(deleted)");
        found += isOfFile ? line + "\n" : "";
    }
    return found;
}

/** Writes, closes, renames and opens files while it takes records. */
void logToRotatingFile() {
    namespace sinks = boost::log::sinks;
    namespace keywords = boost::log::keywords;
    auto backend = boost::make_shared<sinks::text_file_backend>(
        keywords::file_name = "/home/brvn/logs/%N.log", keywords::rotation_size = 500);
    boost::log::core::get()->add_sink(
        boost::make_shared<sinks::synchronous_sink<sinks::text_file_backend>>(backend));
}

TEST(CancelledWorkers, EndAfterTheCallThatTheyAreInAndLeaveNothingOpen) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer mistakes the stack of a cancelled thread for an overwritten one";
#endif
    kvsim::Machine machine = equippedMachine();
    ENTER_MACHINE(machine);
    ::alarm(100);
    kvsim::Machine::write(kTranslation, "lo:0:Hostlink;");
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // a line is a write
    logToRotatingFile();
    serialCard.slot = kSerialSlot;
    unserved.bus = kDigitalBus;
    semaphore = kv_createSemaphore(0);
    ASSERT_EQ(kvPCI_getDeviceAtSlot(kVendor, kAnalogBoard, kAny, kAny, 9, 0, &board), 0);
    ASSERT_EQ(kv_uio_createInterruptContext(&interrupt, &board), 0);
    ASSERT_EQ(kv_uio_interruptAttach(interrupt), 0);

    static const Row* current = nullptr;
    std::set_terminate([] {
        std::cerr << current->functions << " ended the process\n";
        std::abort();
    });
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.functions);
        current = &row;
        decltype(openFiles()) files = 0;
        std::string maps;
        for (int round = 0; round < 6; ++round) {
            Worker worker{.row = &row, .cancelsItselfFirst = round < 2};
            runAndCancel(worker);
            if (round == 0) {  // which opened what is kept on purpose
                files = openFiles();
                maps = mappings();
            }
        }
        EXPECT_EQ(openFiles(), files);
        EXPECT_EQ(mappings(), maps);
    }
    kv_uio_interruptDetach(interrupt);
}

}  // namespace
