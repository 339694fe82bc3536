#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kvsim/description.h"

namespace kvsim {

/** A range of addresses, both ends included. */
struct AddressRange {
    std::uint64_t first;
    std::uint64_t last;
};

/** What a bridge forwards to the buses behind it; empty where nothing behind it has such a BAR. */
struct BridgeWindows {
    std::optional<AddressRange> io;
    std::optional<AddressRange> memory;
    std::optional<AddressRange> prefetchable;
};

/** The role that a function plays in a PCI Express tree, with its code in the Express capability. */
enum class ExpressPort : std::uint8_t {
    Endpoint = 0,
    RootPort = 4,
    UpstreamPort = 5,
    DownstreamPort = 6,
    RootComplexEndpoint = 9
};

/** How the functions of a machine hang together. Keeps references to the list, which must outlive it. */
class PciTopology {
 public:
    explicit PciTopology(const std::vector<PciFunction>& functions) : functions_(functions) {}

    /** The bridge that leads to a bus; null for bus 0 and for a bus that none leads to. */
    [[nodiscard]] const PciFunction* bridgeTo(unsigned bus) const;
    /** The highest bus number behind a bridge. */
    [[nodiscard]] std::uint8_t subordinateBus(const PciFunction& bridge) const;
    [[nodiscard]] BridgeWindows windows(const PciFunction& bridge) const;
    [[nodiscard]] ExpressPort expressPort(const PciFunction& function) const;
    /** Whether several functions share the function's slot. */
    [[nodiscard]] bool isMultiFunction(const PciFunction& function) const;

 private:
    [[nodiscard]] bool isBehind(const PciFunction& function, const PciFunction& bridge) const;

    const std::vector<PciFunction>& functions_;
};

/** Whether a BAR needs 64-bit addresses. */
inline bool isWide(const Bar& bar) {
    return bar.space != BarSpace::Io && bar.address + (bar.sizeBytes - 1) > UINT32_MAX;
}

/** The flag bits in the low bits of a base address register. */
std::uint32_t barFlags(const Bar& bar);

}  // namespace kvsim
