#pragma once

#include <optional>
#include <vector>

#include <yaml-cpp/yaml.h>

#include "kvsim/description.h"

namespace kvsim {

std::vector<AxiDevice> readAxiDevices(const YAML::Node& list);

/** `what` the range is goes into the reason. Empty where the range has a mistake. */
std::optional<MemoryRange> readMemoryRange(const YAML::Node& node, const char* what);

}  // namespace kvsim
