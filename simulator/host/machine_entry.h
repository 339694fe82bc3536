#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "host/private_mounts.h"
#include "kvsim/description.h"
#include "os/unique_fd.h"

namespace kvsim {

struct EntryOptions {
    /** What the machine is called: in the environment, as its host name, and in the list of machines. */
    std::string name = "machine";
    /** The folder on the host in which the machine keeps its state; empty for a fresh boot. */
    std::string stateFolder = {};
};

/** What a process that has entered a machine may hand to one that looks after it. */
struct EnteredMachine {
    /** The folders whose contents end with the machine. */
    std::vector<CoveredFolder> folders;
    /** At its end when the machine has ended and nothing of it is left on the host. */
    kv::os::UniqueFd keeper;
};

/** What a machine says about itself, in a file of its own. */
struct MachineRecord {
    std::string name;
    ino_t mountNamespace = 0; /**< by which a process proves to be on this machine */
    pid_t program = 0;        /**< the process that entered */
    pid_t starter = 0;        /**< the process that started it */
};

inline constexpr const char* kMachineRecord = "/run/kvsim/machine";

/** A process's mount namespace, by which machines are told apart; 0 where it can't be looked at. */
ino_t mountNamespaceOf(pid_t process);

/**
 * Puts this process on a machine, as Machine::enter() does.
 *
 * Also throws std::runtime_error where another machine uses the state folder.
 */
EnteredMachine enterMachine(const MachineDescription& description, const EntryOptions& options);

/** Sets the environment of programs on a machine, of the name that it has. */
void setMachineEnvironment(const std::string& name);

}  // namespace kvsim
