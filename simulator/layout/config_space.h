#pragma once

#include <string>

#include "layout/pci_topology.h"

namespace kvsim {

/** The configuration space of a function as its "config" file holds it: 256 bytes, 4096 with PCI Express. */
std::string configSpace(const PciFunction& function, const PciTopology& topology);

/** Whether a function responds: said by its description, or because a driver holds it. */
bool isEnabled(const PciFunction& function);

}  // namespace kvsim
