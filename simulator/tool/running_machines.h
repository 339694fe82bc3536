#pragma once

#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

#include "host/machine_entry.h"

namespace kvsim {

/** A machine that processes of this user are on. */
struct RunningMachine {
    MachineRecord record;
    std::vector<pid_t> processes; /**< in ascending order, never empty */
    std::time_t since = 0;

    /** The process that entered, or the oldest number where that has ended. */
    [[nodiscard]] pid_t mainProcess() const;
};

/** In the order in which they were started. Found in /proc, so that nothing can be out of date. */
std::vector<RunningMachine> runningMachines();

/** The processes of this user that are on the machine with that mount namespace. */
std::vector<pid_t> processesOn(ino_t mountNamespace);

/** The command line of a process, its arguments as they may be shown. Empty where it has ended. */
std::string commandOf(pid_t process);

/**
 * The machine with that name, or the one on which that process is, or which it started. Throws
 * std::runtime_error, with those that there are, where there is none or more than one.
 */
RunningMachine findRunningMachine(const std::string& nameOrProcess);

/** One line for each machine, below a line of titles. */
std::string tableOf(const std::vector<RunningMachine>& machines);

/** Puts this process on a machine that runs. Throws std::runtime_error. */
void joinMachine(const RunningMachine& machine);

}  // namespace kvsim
