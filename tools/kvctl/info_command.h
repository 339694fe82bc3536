#pragma once

#include "command_support.h"

namespace kvctl {

/** Adds `kvctl info`: what machine this is. */
void addInfoCommand(CLI::App& app, Problems& problems);

}  // namespace kvctl
