#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <kvsim/machine.h>
#include <string>

#include <benchmark/benchmark.h>
#include <boost/log/core.hpp>
#include <systemd/sd-device.h>

#include <kv/diagnostics.h>
#include <kv/network.h>
#include <kv/pci.h>

#include "goal.h"
#include "run_on.h"

namespace {

constexpr uint32_t kEthernetClassCode = 0x020000;

/* ---- Machine
 * ----------------------------------------------------------------------------------------------------- */

/** A machine with its slots full of Ethernet modules, each with a switch of its own. */
class EquippedMachine {
 public:
    EquippedMachine() {
        for (const char* name : {"end0", "end1"}) {
            machine_.addPlatformDevice({.name = std::string("axi/") + name + ".ethernet",
                                        .classDevices = {{.className = "net", .name = name}}});
        }
        addModule(0x1533, {1, 2});
        addModule(0x1533, {2, 3, 4, 5});
        addModule(0x1539, {1, 2});
        addModule(0x10D3, {2, 3, 4, 5});
        addModule(0x10D3, {4, 5});
        addModule(0x107C, {1});
    }

    [[nodiscard]] const kvsim::Machine& machine() const { return machine_; }

 private:
    void addModule(uint16_t device, std::initializer_list<uint8_t> bridgeSlots) {
        const uint8_t switchBus = nextBus_++;
        machine_.addBridge({.slot = switchBus}, switchBus);
        for (const uint8_t slot : bridgeSlots) {
            const uint8_t bus = nextBus_++;
            machine_.addBridge({.bus = switchBus, .slot = slot}, bus);
            machine_
                .addPciFunction(
                    {.bus = bus, .vendor = 0x8086, .device = device, .classCode = kEthernetClassCode})
                .networkInterface("eth" + std::to_string(bus));
        }
    }

    kvsim::Machine machine_;
    uint8_t nextBus_ = 1;
};

/* ---- Translation
 * ------------------------------------------------------------------------------------------------- */

void translationOurs(benchmark::State& state) {
    for (auto _ : state) {
        if (kv_translateEthernetInterfaces() != 0) {
            state.SkipWithError("no translation");
        }
    }
    kv::bench::setGoal(state, 1.2);
}

/** Finds the chip's own interfaces. */
std::size_t lookUpPlatformInterfaces() {
    sd_device_enumerator* enumerator = nullptr;
    sd_device_enumerator_new(&enumerator);
    sd_device_enumerator_add_match_subsystem(enumerator, "net", 1);
    std::size_t found = 0;
    for (sd_device* device = sd_device_enumerator_get_device_first(enumerator); device != nullptr;
         device = sd_device_enumerator_get_device_next(enumerator)) {
        const char* path = nullptr;
        sd_device_get_devpath(device, &path);
        if (std::strstr(path, ".ethernet") == nullptr) {
            continue;
        }
        sd_device* parent = nullptr;
        const char* name = nullptr;
        sd_device_get_parent(device, &parent);
        sd_device_get_subsystem(parent, &name);
        sd_device_get_sysname(device, &name);
        found += name != nullptr ? 1 : 0;
    }
    sd_device_enumerator_unref(enumerator);
    return found;
}

/** Finds the interface of a controller. */
bool lookUpInterface(const kv_topo_node& node) {
    const std::string pciName = kv::utils::formatString("0000:%02x:%02x.%x", node.bus, node.slot, node.func);
    sd_device* function = nullptr;
    sd_device_new_from_subsystem_sysname(&function, "pci", pciName.c_str());
    sd_device_enumerator* enumerator = nullptr;
    sd_device_enumerator_new(&enumerator);
    sd_device_enumerator_add_match_subsystem(enumerator, "net", 1);
    sd_device_enumerator_add_match_parent(enumerator, function);
    sd_device* interface = sd_device_enumerator_get_device_first(enumerator);
    const char* name = nullptr;
    const bool found = interface != nullptr && sd_device_get_sysname(interface, &name) >= 0;
    sd_device_enumerator_unref(enumerator);
    sd_device_unref(function);
    return found;
}

std::size_t lookUpInterfacesBelow(const kv_topo_node* nodes, uint32_t count) {
    std::size_t found = 0;
    for (const kv_topo_node* node = nodes; node != nodes + count; ++node) {
        if (node->headerType == 1) {
            const auto* bridge = reinterpret_cast<const kv_topo_bridge*>(node->customData);
            found += lookUpInterfacesBelow(bridge->children, bridge->nChildren);
        } else if (node->classcode == kEthernetClassCode && lookUpInterface(*node)) {
            ++found;
        }
    }
    return found;
}

void translationBaseline(benchmark::State& state, std::size_t interfaces) {
    for (auto _ : state) {
        const kv::OwnedTopology topology;
        const std::size_t found =
            lookUpPlatformInterfaces() +
            lookUpInterfacesBelow(topology.nodes(), static_cast<uint32_t>(topology.count()));
        if (found != interfaces) {
            state.SkipWithError("interfaces are missing");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    boost::log::core::get()->set_logging_enabled(false);
    benchmark::Initialize(&argc, argv);
    const EquippedMachine equipped;
    constexpr std::size_t kInterfaces = 17;
    const bool good = kv::bench::runOn(equipped.machine(), [] {
        benchmark::RegisterBenchmark("Ethernet translation/ours", translationOurs)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("Ethernet translation/baseline", [](benchmark::State& state) {
            translationBaseline(state, kInterfaces);
        })->Unit(benchmark::kMicrosecond);
    });
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
