#pragma once

#include <CLI/App.hpp>

namespace kvctl {

/** Adds `kvctl pci`: the PCI topology as a tree, or as JSON. */
void addPciCommand(CLI::App& app);

}  // namespace kvctl
