#pragma once

#include <map>
#include <set>
#include <string>

#include "kvsim/description.h"

namespace kvsim {

/** Where programs find the commands that the machine brings: stand-ins for those of the target. */
inline constexpr const char* kCommandFolder = "/run/kvsim/bin";

/** "/proc/irq/52" */
std::string interruptFolder(unsigned irq);

/** The machine's interrupts, each with the names of those that handle it. */
std::map<unsigned, std::set<std::string>> interruptHandlers(const MachineDescription& description);

}  // namespace kvsim
