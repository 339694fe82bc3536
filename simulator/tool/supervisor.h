#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/machine_entry.h"
#include "kvsim/description.h"

namespace kvsim {

/** Statuses for a command that did not come to run, as shells use them. */
inline constexpr int kCannotRun = 126;
inline constexpr int kNoSuchCommand = 127;

/** The status of a command that succeeded, but what it left could not be copied. */
inline constexpr int kCannotKeep = 1;

/**
 * Runs a command and waits for it, in the foreground process group, in a child process that enters a machine
 * first.
 *
 * This process stays outside the machine, passes SIGINT, SIGQUIT, SIGTERM and SIGHUP on, and takes the
 * command with it when it dies. Returns the command's exit status, 128 + N where signal N ended it, or one of
 * the statuses above.
 */
int runCommand(const std::function<void()>& enter, const std::vector<std::string>& command);

/**
 * Runs a command on a machine of its own, then names on standard error what is lost with the machine and
 * which processes are still on it.
 *
 * What the command left in the machine's folders is copied below @p keepFolder, unless that is empty.
 */
int runOnMachine(const MachineDescription& description, const EntryOptions& options,
                 const std::string& keepFolder, const std::vector<std::string>& command);

}  // namespace kvsim
