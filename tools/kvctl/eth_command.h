#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl eth`: which network interface is which connector. */
void addEthCommand(command_line::Program& program, Problems& problems);

}  // namespace kvctl
