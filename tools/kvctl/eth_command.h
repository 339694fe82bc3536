#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl eth`: which network interface is which connector. */
void addEthCommand(CLI::App& app, Problems& problems);

}  // namespace kvctl
