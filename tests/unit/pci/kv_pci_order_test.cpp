#include <list>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "pci/kv_pci_internal.h"

namespace {

/** Bus, device, function; the domain does not count. */
int placeOf(const pci_dev& device) {
    return device.bus << 8 | device.dev << 3 | device.func;
}

/** The order as it is defined: insertion into a growing sorted list. */
std::vector<const pci_dev*> insertOneByOne(const std::vector<pci_dev>& devices) {
    std::list<const pci_dev*> sorted;
    for (const pci_dev& device : devices) {
        if (sorted.empty() || placeOf(*sorted.front()) > placeOf(device)) {
            sorted.push_front(&device);
            continue;
        }
        auto place = std::next(sorted.begin());
        while (place != sorted.end() && placeOf(**place) < placeOf(device)) {
            ++place;
        }
        sorted.insert(place, &device);
    }
    return {sorted.begin(), sorted.end()};
}

std::vector<const pci_dev*> sortedBySystem(std::vector<pci_dev>& devices) {
    for (std::size_t i = 0; i + 1 < devices.size(); ++i) {
        devices[i].next = &devices[i + 1];
    }
    std::vector<const pci_dev*> sorted;
    pci_dev* head = devices.empty() ? nullptr : &devices.front();
    for (const pci_dev* device = kv::pci::sortIntoBusOrder(head); device != nullptr; device = device->next) {
        sorted.push_back(device);
    }
    return sorted;
}

// Devices of several domains share addresses, and their order among each other decides which one an index
// finds.
TEST(PciBusOrder, EqualsInsertionOneByOneAlsoForEqualAddresses) {
    std::mt19937 random(5);
    for (int round = 0; round < 2000; ++round) {
        std::vector<pci_dev> devices(random() % 12);
        for (pci_dev& device : devices) {
            device.domain = static_cast<int>(random() % 2);
            device.bus = static_cast<u8>(random() % 3);
            device.dev = static_cast<u8>(random() % 2);
            device.func = static_cast<u8>(random() % 2);
        }
        const auto expected = insertOneByOne(devices);
        ASSERT_EQ(sortedBySystem(devices), expected) << "round " << round;
    }
}

}  // namespace
