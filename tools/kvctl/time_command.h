#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl time`: the machine's clock. */
void addTimeCommand(command_line::Program& program);

}  // namespace kvctl
