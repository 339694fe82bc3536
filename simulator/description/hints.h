#pragma once

#include <vector>

#include "kvsim/description_reader.h"

namespace kvsim {

/**
 * In the order of the description. Without `hasAllDrivers` the description may lack drivers of the machine,
 * and none is called unknown.
 */
std::vector<Hint> hintsFor(const MachineDescription& machine, bool hasAllDrivers);

}  // namespace kvsim
