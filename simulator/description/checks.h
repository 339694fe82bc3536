#pragma once

#include <string>

#include "kvsim/description.h"

namespace kvsim {

/** Refuses a name that can't be one folder or file of a path. `what` it names goes into the reason. */
void requireFileName(const std::string& name, const char* what, Position position);

}  // namespace kvsim
