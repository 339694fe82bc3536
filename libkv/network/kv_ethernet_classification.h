#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <kv/pci.h>
#include <kv/target.h>

/** What an Ethernet controller belongs to. */
enum IoModuleType : uint32_t {
    ONBOARD = 0,
    NMA = 1,
    NMA_2 = 2,
    NMB = 3,
    NMC = 4,
    NMD = 5,
    NME = 6,
    NMF = 7,
    NMG = 8,
    NMH = 9,
    NMH_2 = 10,
    NMJ = 11,
    NMK = 12
};

/** Label of each type, by its value. */
inline constexpr std::array kIoModules = {"Onboard", "NMA", "NMA-2", "NMB",   "NMC", "NMD", "NME",
                                          "NMF",     "NMG", "NMH",   "NMH-2", "NMJ", "NMK"};
static_assert(kIoModules.size() == NMK + 1);

/** What is at one position of the list of Ethernet controllers. */
struct EthInterface {
    IoModuleType ioModule;
    uint8_t nPorts; /**< how many entries it takes, this one included */
};

/**
 * Tells what the controller at position @p i, and those behind it in the list, are ports of. A module is
 * known by the identity of its controllers and by the slots of the bridges in front of them: those of the
 * switch on the module.
 *
 * @param ethDevices  in ascending (bus, slot, function) order; where parent is not null it is read
 */
void isEthernetModule(EthInterface* interfaceInfo, const std::vector<_kv_topo_node>& ethDevices, int i,
                      kv_TargetType targetType);
