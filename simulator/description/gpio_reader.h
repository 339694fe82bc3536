#pragma once

#include <vector>

#include <yaml-cpp/yaml.h>

#include "kvsim/description.h"

namespace kvsim {

std::vector<GpioChip> readGpioChips(const YAML::Node& list);

}  // namespace kvsim
