#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl info`: what machine this is. */
void addInfoCommand(command_line::Program& program, Problems& problems);

}  // namespace kvctl
