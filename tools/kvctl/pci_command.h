#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl pci`: the PCI topology as a tree. */
void addPciCommand(CLI::App& app, Problems& problems);

}  // namespace kvctl
