#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl time`: the machine's clock. */
void addTimeCommand(CLI::App& app);

}  // namespace kvctl
