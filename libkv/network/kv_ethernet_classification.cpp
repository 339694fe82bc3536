#include "network/kv_ethernet_classification.h"

#include <algorithm>
#include <span>

namespace {

using Controllers = std::span<const _kv_topo_node>;

struct Identity {
    uint32_t vendor;
    uint32_t device;
};

/** How the bridges in front of a module's controllers are placed, all on one bus. */
enum class Bridges { Any, InSlotsFrom, InOneSlot };

struct Arrangement {
    Bridges bridges = Bridges::Any;
    uint32_t firstSlot = 0;
};

constexpr Arrangement inSlotsFrom(uint32_t firstSlot) {
    return {Bridges::InSlotsFrom, firstSlot};
}
constexpr Arrangement kInOneSlot = {Bridges::InOneSlot};

/** What else must hold; sees the first controller. */
using Condition = bool (*)(const _kv_topo_node& first, kv_TargetType targetType);

struct Rule {
    EthInterface result;
    Identity identity;
    Arrangement arrangement = {};
    Condition condition = nullptr;
};

bool isOnboardPair(const _kv_topo_node& first, kv_TargetType targetType) {
    return targetType == Olive && first.bus == 5 && first.slot == 0;
}

bool isWithoutSubsystem(const _kv_topo_node& first, kv_TargetType /*targetType*/) {
    return first.SubVID == 0 && first.SubDID == 0;
}

bool isUnprogrammed(const _kv_topo_node& first, kv_TargetType targetType) {
    return first.SubVID == 0xFFFF && first.SubDID == 0 && targetType != RamblerV3;
}

/** The first one that applies decides. */
constexpr Rule kRules[] = {
    {{NME, 4}, {0x8086, 0x1533}, inSlotsFrom(2)},
    {{NME, 4}, {0x8086, 0x1533}, inSlotsFrom(1)},
    {{ONBOARD, 2}, {0x8086, 0x1533}, inSlotsFrom(1), isOnboardPair},
    {{NMA, 2}, {0x8086, 0x1533}, inSlotsFrom(1)},
    {{NMB, 1}, {0x8086, 0x1533}, {}, isUnprogrammed},
    {{NMH_2, 1}, {0x8086, 0x1533}, {}, isWithoutSubsystem},
    {{NMA_2, 2}, {0x8086, 0x1539}, inSlotsFrom(1)},
    {{NMC, 2}, {0x8086, 0x1563}, kInOneSlot},
    {{NMD, 1}, {0x10EC, 0x8168}},
    {{NMF, 4}, {0x8086, 0x10D3}, inSlotsFrom(2)},
    {{NMG, 2}, {0x8086, 0x10D3}, inSlotsFrom(4)},
    {{NMH, 1}, {0x8086, 0x107C}},
    {{NMJ, 2}, {0x8086, 0x1229}, kInOneSlot},
    {{NMK, 1}, {0x8006, 0x1229}},  // the vendor is meant: 0x8086 would make it a port of an NMJ
};

constexpr EthInterface kNoModule = {ONBOARD, 1};

bool areArranged(Controllers ports, const Arrangement& arrangement) {
    if (arrangement.bridges == Bridges::Any) {
        return true;
    }
    const _kv_topo_node* firstBridge = ports.front().parent;
    for (uint32_t k = 0; k < ports.size(); ++k) {
        const _kv_topo_node* bridge = ports[k].parent;
        if (bridge == nullptr || bridge->bus != firstBridge->bus) {
            return false;
        }
        const uint32_t expectedSlot =
            arrangement.bridges == Bridges::InOneSlot ? firstBridge->slot : arrangement.firstSlot + k;
        if (bridge->slot != expectedSlot) {
            return false;
        }
    }
    return true;
}

/** @param controllers  from the position in question to the end of the list */
bool applies(const Rule& rule, Controllers controllers, kv_TargetType targetType) {
    if (controllers.size() < rule.result.nPorts) {
        return false;
    }
    const Controllers ports = controllers.first(rule.result.nPorts);
    const bool haveIdentity = std::ranges::all_of(ports, [&rule](const _kv_topo_node& port) {
        return port.VID == rule.identity.vendor && port.DID == rule.identity.device;
    });
    return haveIdentity && areArranged(ports, rule.arrangement) &&
           (rule.condition == nullptr || rule.condition(ports.front(), targetType));
}

}  // namespace

void isEthernetModule(EthInterface* interfaceInfo, const std::vector<_kv_topo_node>& ethDevices, int i,
                      kv_TargetType targetType) {
    const auto controllers = Controllers(ethDevices).subspan(static_cast<std::size_t>(i));
    const auto* const rule = std::ranges::find_if(
        kRules, [&](const Rule& each) { return applies(each, controllers, targetType); });
    *interfaceInfo = rule == std::end(kRules) ? kNoModule : rule->result;
}
