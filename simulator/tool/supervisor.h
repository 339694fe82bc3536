#pragma once

#include <string>
#include <vector>

#include "kvsim/machine.h"

namespace kvsim {

/** Statuses for a command that did not come to run, as shells use them. */
inline constexpr int kCannotRun = 126;
inline constexpr int kNoSuchCommand = 127;

/**
 * Runs a command on a machine, in the foreground process group, and waits for it.
 *
 * This process stays outside the machine, passes SIGINT, SIGQUIT, SIGTERM and SIGHUP on, and takes the
 * command with it when it dies. Returns the command's exit status, 128 + N where signal N ended it, or one of
 * the statuses above.
 */
int runCommand(Machine& machine, const std::vector<std::string>& command);

}  // namespace kvsim
