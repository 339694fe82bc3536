#include <algorithm>
#include <cctype>
#include <set>

#include "description/checks.h"
#include "description/mistakes.h"
#include "layout/format.h"
#include "layout/machine_layout.h"
#include "layout/page.h"

namespace kvsim {

namespace {

constexpr unsigned kMaxIrq = 1023;
constexpr std::size_t kMaxMaps = 5;  // of the kernel's UIO

std::string nameOf(const AxiDevice& device, std::size_t map) {
    return format("map %zu of %s", map, device.name.c_str());
}

void requireWholePages(const std::string& name, const char* what, std::uint64_t number, Position position) {
    if (number % kPageBytes != 0) {
        refuse(format("the %s %s of %s is not a multiple of %s", what, hex(number).c_str(), name.c_str(),
                      hex(kPageBytes).c_str()),
               position);
    }
}

/** Memory that programs map. */
void requireMemory(const std::string& name, std::uint64_t address, std::uint64_t sizeBytes,
                   Position position) {
    if (sizeBytes == 0) {
        refuse(name + " is empty", position);
    }
    requireWholePages(name, "address", address, position);
    requireWholePages(name, "size", sizeBytes, position);
    requireRange(name, address, sizeBytes, kMaxAddress, position);
}

void checkMap(const AxiDevice& device, std::size_t index) {
    const UioMap& map = device.maps[index];
    const std::string name = nameOf(device, index);
    requireMemory(name, map.address, map.sizeBytes, map.position);
    requireWholePages(name, "offset", map.offset, map.position);
    if (map.offset > kMaxAddress) {
        refuse(format("the offset %s of %s is above %s", hex(map.offset).c_str(), name.c_str(),
                      hex(kMaxAddress).c_str()),
               map.position);
    }
    requireRegisters(map.registers, "map", map.sizeBytes, map.position);
    for (std::size_t before = 0; before < index; ++before) {
        const UioMap& other = device.maps[before];
        // At one and the same offset two maps are two views of the same memory, as some drivers make them.
        const bool overlaps = map.offset < other.offset + other.sizeBytes &&
                              other.offset < map.offset + map.sizeBytes && map.offset != other.offset;
        if (overlaps) {
            refuse(format("%s at offset %s overlaps %s at offset %s", name.c_str(), hex(map.offset).c_str(),
                          nameOf(device, before).c_str(), hex(other.offset).c_str()),
                   map.position);
        }
    }
}

void checkAxiDevice(const AxiDevice& device) {
    requireFileName(device.name, "an AXI device", device.position);
    if (std::ranges::any_of(device.name, [](unsigned char letter) { return std::isspace(letter) != 0; })) {
        refuse("\"" + device.name + "\" is not a single word, as the name of an AXI device must be",
               device.position);
    }
    if (device.irq > kMaxIrq) {
        refuse(format("the irq %u of %s is above %u", device.irq, device.name.c_str(), kMaxIrq),
               device.position);
    }
    if (device.maps.size() > kMaxMaps) {
        refuse(format("%s has %zu maps: UIO shows no more than %zu", device.name.c_str(), device.maps.size(),
                      kMaxMaps),
               device.position);
    }
    for (std::size_t index = 0; index < device.maps.size(); ++index) {
        checkMap(device, index);
    }
}

}  // namespace

void checkSoc(const MachineDescription& description, AddressRanges memory) {
    std::set<std::string> names;
    for (const AxiDevice& device : description.axiDevices) {
        Mistakes::attempt([&] {
            checkAxiDevice(device);
            if (!names.insert(device.name).second) {
                refuse("there are two AXI devices named " + device.name, device.position);
            }
            for (std::size_t index = 0; index < device.maps.size(); ++index) {
                const UioMap& map = device.maps[index];
                memory.add(nameOf(device, index), map.address, map.sizeBytes, map.position);
            }
        });
    }
    const auto add = [&memory](const char* name, const std::optional<MemoryRange>& range) {
        if (range) {
            Mistakes::attempt([&] {
                requireMemory(name, range->address, range->sizeBytes, range->position);
                memory.add(name, range->address, range->sizeBytes, range->position);
            });
        }
    };
    add("the DMA memory", description.dmaMemory);
    add("the cached buffer", description.cachedBuffer);
}

}  // namespace kvsim
