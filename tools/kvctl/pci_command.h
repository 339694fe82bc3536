#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl pci`: the PCI topology as a tree. */
void addPciCommand(command_line::Program& program, Problems& problems);

}  // namespace kvctl
