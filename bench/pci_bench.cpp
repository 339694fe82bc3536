#include <cstdio>
#include <cstdlib>
#include <kvsim/machine.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/log/core.hpp>

#include <kv/pci.h>

#include "goal.h"
#include "run_on.h"

extern "C" {
#include <pci/pci.h>
#ifdef KV_HAVE_PCIACCESS
#include <pciaccess.h>
#endif
}

namespace {

constexpr uint16_t kVendor = 0x1b5a;
constexpr uint16_t kDevice = 0x0100;
constexpr uint16_t kAny = KV_PCI_ANY_SUBSYSTEM;
constexpr int kMemoryAndBusMaster = PCI_COMMAND_MEMORY | PCI_COMMAND_MASTER;
constexpr int kWrittenFields = 0x25;  // identity, bases and class

/* ---- Machines
 * ---------------------------------------------------------------------------------------------------- */

kvsim::PciFunction functionAt(int bus, int address) {
    kvsim::PciFunction function;
    function.bus = static_cast<uint8_t>(bus);
    function.slot = static_cast<uint8_t>(address / 8);
    function.function = static_cast<uint8_t>(address % 8);
    function.vendor = kVendor;
    function.device = kDevice;
    return function;
}

/** @p boards boards of one identity, 256 behind each bridge. The last one is what the look-ups look for. */
kvsim::Machine machineOfBoards(int boards) {
    kvsim::Machine machine;
    for (int board = 0; board < boards; ++board) {
        const int bus = board / 256 + 1;
        if (board % 256 == 0) {
            machine.addBridge(functionAt(0, bus * 8), static_cast<uint8_t>(bus));
        }
        machine.addPciFunction(functionAt(bus, board % 256));
    }
    return machine;
}

/** Bus 0, and behind its bridges @p buses - 1 buses with one board each. */
kvsim::Machine machineOfBuses(int buses) {
    kvsim::Machine machine;
    for (int bus = 1; bus < buses; ++bus) {
        machine.addBridge(functionAt(0, bus), static_cast<uint8_t>(bus));
        machine.addPciFunction(functionAt(bus, 0));
    }
    machine.addPciFunction(functionAt(0, 0)).expressCapability(2, 1);
    return machine;
}

/* ---- Look-ups
 * ---------------------------------------------------------------------------------------------------- */

void byIndexOurs(benchmark::State& state, int boards) {
    kv_PCIDevice record;
    for (auto _ : state) {
        if (kvPCI_getDeviceByIdx(kVendor, kDevice, kAny, kAny, boards, &record) != 0) {
            state.SkipWithError("the board was not found");
        }
    }
    kv::bench::setGoal(state, 0.9);
}

#ifdef KV_HAVE_PCIACCESS
void byIndexBaseline(benchmark::State& state, int boards) {
    pci_system_init();
    for (auto _ : state) {
        pci_device_iterator* iterator = pci_slot_match_iterator_create(nullptr);
        int found = 0;
        while (pci_device* device = pci_device_next(iterator)) {
            uint16_t command = 0;
            pci_device_cfg_read_u16(device, &command, PCI_COMMAND);
            pci_device_cfg_write_u16(device, static_cast<uint16_t>(command | kMemoryAndBusMaster),
                                     PCI_COMMAND);
            if (device->vendor_id == kVendor && device->device_id == kDevice && ++found == boards) {
                break;
            }
        }
        pci_iterator_destroy(iterator);
        if (found != boards) {
            state.SkipWithError("the board was not found");
        }
    }
    pci_system_cleanup();
}
#endif

struct AccessDeleter {
    void operator()(pci_access* access) const { pci_cleanup(access); }
};
using Access = std::unique_ptr<pci_access, AccessDeleter>;

Access scannedAccess() {
    Access access(pci_alloc());
    pci_init(access.get());
    pci_scan_bus(access.get());
    return access;
}

void atSlotOurs(benchmark::State& state, const kvsim::PciFunction& last) {
    kv_PCIDevice record;
    for (auto _ : state) {
        if (kvPCI_getDeviceAtSlot(kVendor, kDevice, kAny, kAny, last.bus, last.slot, &record) != 0) {
            state.SkipWithError("the board was not found");
        }
    }
    kv::bench::setGoal(state, 1.3);
}

void atSlotBaseline(benchmark::State& state, const kvsim::PciFunction& last) {
    for (auto _ : state) {
        const Access access = scannedAccess();
        pci_dev* device = access->devices;
        for (; device != nullptr; device = device->next) {
            pci_write_byte(device, PCI_COMMAND, kMemoryAndBusMaster);
            pci_fill_info(device, kWrittenFields);
            if (device->bus == last.bus && device->dev == last.slot) {
                break;
            }
        }
        if (device == nullptr) {
            state.SkipWithError("the board was not found");
        }
    }
}

/* ---- Topology
 * ---------------------------------------------------------------------------------------------------- */

void topologyOurs(benchmark::State& state) {
    for (auto _ : state) {
        const kv::OwnedTopology topology;
        if (topology.count() <= 0) {
            state.SkipWithError("no topology");
        }
    }
    kv::bench::setGoal(state, 1.1);
}

/** What the scan needs to know of a function, read from the functions that libpci's own scan lists. */
void topologyBaseline(benchmark::State& state) {
    for (auto _ : state) {
        const Access access = scannedAccess();
        for (pci_dev* device = access->devices; device != nullptr; device = device->next) {
            for (const int offset :
                 {PCI_VENDOR_ID, PCI_CLASS_REVISION, PCI_CACHE_LINE_SIZE, PCI_SUBSYSTEM_VENDOR_ID}) {
                benchmark::DoNotOptimize(pci_read_long(device, offset));
            }
            if ((pci_read_byte(device, PCI_HEADER_TYPE) & 0x7F) == PCI_HEADER_TYPE_BRIDGE) {
                benchmark::DoNotOptimize(pci_read_long(device, PCI_PRIMARY_BUS));
            }
            if (const pci_cap* express = pci_find_cap(device, PCI_CAP_ID_EXP, PCI_CAP_NORMAL)) {
                benchmark::DoNotOptimize(
                    pci_read_word(device, static_cast<int>(express->addr) + PCI_EXP_FLAGS));
                benchmark::DoNotOptimize(
                    pci_read_long(device, static_cast<int>(express->addr) + PCI_EXP_LNKCAP));
            }
        }
    }
}

/* ---- Running
 * ----------------------------------------------------------------------------------------------------- */

template <typename Function>
void add(const std::string& name, Function function) {
    benchmark::RegisterBenchmark(name.c_str(), function)->Unit(benchmark::kMicrosecond);
}

void addLookUps(int boards, const kvsim::PciFunction& last) {
    const std::string functions = std::to_string(boards) + " functions";
    add("pci: by index, " + functions + "/ours",
        [boards](benchmark::State& state) { byIndexOurs(state, boards); });
#ifdef KV_HAVE_PCIACCESS
    add("pci: by index, " + functions + "/baseline",
        [boards](benchmark::State& state) { byIndexBaseline(state, boards); });
#endif
    add("pci: at slot, " + functions + "/ours", [last](benchmark::State& state) { atSlotOurs(state, last); });
    add("pci: at slot, " + functions + "/baseline",
        [last](benchmark::State& state) { atSlotBaseline(state, last); });
}

void addTopology(int buses) {
    const std::string name = "pci: topology, " + std::to_string(buses) + " buses";
    add(name + "/ours", topologyOurs);
    add(name + "/baseline", topologyBaseline);
}

}  // namespace

int main(int argc, char** argv) {
    boost::log::core::get()->set_logging_enabled(false);
    benchmark::Initialize(&argc, argv);
#ifndef KV_HAVE_PCIACCESS
    std::fprintf(stderr, "skipped: the baseline of look-ups by index, libpciaccess is not installed\n");
#endif
    bool good = true;
    for (const int boards : {64, 1024}) {
        const kvsim::Machine machine = machineOfBoards(boards);
        good &=
            kv::bench::runOn(machine, [&] { addLookUps(boards, machine.description().pciFunctions.back()); });
    }
    for (const int buses : {1, 16, 256}) {
        good &= kv::bench::runOn(machineOfBuses(buses), [buses] { addTopology(buses); });
    }
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
