#include "network/kv_ethernet_labels.h"

#include <algorithm>
#include <array>
#include <span>

#include <kv/diagnostics.h>

#include "network/kv_ethernet_classification.h"

namespace {

using kv::utils::formatString;

using Names = std::span<const char* const>;

constexpr std::array kHostLinkAndOne = {"Hostlink", "ETH1"};
constexpr std::array kKeystone = {"Internal", "ETH1", "ETH2", "Hostlink"};
constexpr std::array kKeystoneTopLayer = {"Internal", "Hostlink"};
constexpr std::array kRamblerV2 = {"Hostlink", "ETH2", "ETH3", "ETH4"};
constexpr std::array kFir = {"Internal", "Hostlink", "ETH1", "ETH2"};
constexpr std::array kRamblerRugged = {"Hostlink", "LAN2"};
constexpr std::array kScholar2 = {"Hostlink", "ETH2"};
constexpr std::array kKapok = {"Hostlink", "ETH1", "ETH2"};
constexpr std::array kRamblerV3 = {"Hostlink", "ETH1", "ETH2", "ETH3", "ETH4"};
constexpr std::array kOlive = {"Hostlink", "ETH1", "ETH2", "ETH3"};

Names onboardNames(kv_TargetType targetType) {
    switch (targetType) {
        case Alder:
        case Birch:
        case Quartz:
        case Cubit:
        case Hazel:
        case Larch:
        case Maple:
        case Nutmeg:
            return kHostLinkAndOne;
        case Keystone:
            return kKeystone;
        case Keystone_TopLayer:
            return kKeystoneTopLayer;
        case RamblerV2:
            return kRamblerV2;
        case Fir:
            return kFir;
        case RamblerRugged:
            return kRamblerRugged;
        case Scholar2:
            return kScholar2;
        case Kapok:
            return kKapok;
        case RamblerV3:
            return kRamblerV3;
        case Olive:
            return kOlive;
        case NonKelvaro:
            break;
    }
    return {};
}

struct PortNumbering {
    const char* label;
    /** The label of the n-th port of all modules of the type, from 0. */
    std::string (*numbered)(int n);
};

// Controllers of NMF and NMG are found in the reverse order of their sockets on the front.
constexpr PortNumbering kPortNumberings[] = {
    {"NMA;", [](int n) { return formatString("NMA_%d%c;", n / 2 + 1, 'A' + n % 2); }},
    {"NMA-2;", [](int n) { return formatString("NMA-2_%d%c;", n / 2 + 1, 'A' + n % 2); }},
    {"NMB;", [](int n) { return formatString("NMB_%d;", n + 1); }},
    {"NMC;", [](int n) { return formatString("NMC_%dPort%d;", n / 2 + 1, n % 2 + 1); }},
    {"NMD;", [](int n) { return formatString("NMD_%d;", n + 1); }},
    {"NME;", [](int n) { return formatString("NME_%dPort%d;", n / 4 + 1, n % 4 + 1); }},
    {"NMF;", [](int n) { return formatString("NMF_%dPort%d;", n / 4 + 1, 4 - n % 4); }},
    {"NMG;", [](int n) { return formatString("NMG_%dPort%d;", n / 2 + 1, 2 - n % 2); }},
    {"NMH;", [](int n) { return formatString("NMH_%d;", n + 1); }},
    {"NMH-2;", [](int n) { return formatString("NMH-2_%d;", n + 1); }},
};

}  // namespace

void appendPciEthInterfaces(std::string& ethStr, const std::vector<_kv_topo_node>& ethDevices,
                            kv_TargetType targetType, const InterfaceNames& interfaceName) {
    const int count = static_cast<int>(ethDevices.size());
    EthInterface module{};
    for (int i = 0; i < count; i += module.nPorts) {
        isEthernetModule(&module, ethDevices, i, targetType);
        if (module.ioModule == NMJ || module.ioModule == NMK) {
            continue;  // kept out of the table, though their controllers count in the index
        }
        for (int k = i; k < i + module.nPorts; ++k) {
            ethStr +=
                formatString("%s:%d:%s;", interfaceName(ethDevices[static_cast<std::size_t>(k)]).c_str(), k,
                             kIoModules[module.ioModule]);
        }
    }
}

void nameOnboardPorts(std::string& ethStr, kv_TargetType targetType) {
    for (const char* name : onboardNames(targetType)) {
        (void)replaceInString(ethStr, kIoModules[ONBOARD], name);  // names beyond the ports have no effect
    }
}

void numberModulePorts(std::string& ethStr) {
    for (const PortNumbering& each : kPortNumberings) {
        for (int n = 0; replaceInString(ethStr, each.label, each.numbered(n)) == 0; ++n) {
        }
    }
}

int replaceInString(std::string& str, const std::string& oldWord, const std::string& newWord) {
    const std::size_t position = str.find(oldWord);
    if (position == std::string::npos) {
        return -1;
    }
    str.replace(position, oldWord.size(), newWord);
    return 0;
}
