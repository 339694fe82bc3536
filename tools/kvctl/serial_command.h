#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl serial`: the serial ports and their device nodes. */
void addSerialCommand(command_line::Program& program, Problems& problems);

}  // namespace kvctl
