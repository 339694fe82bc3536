#pragma once

#include <memory>
#include <string>
#include <vector>

#include "active/active_machine.h"
#include "kvsim/description.h"
#include "os/unique_fd.h"

namespace kvsim {

/** A pseudo-terminal: its slave is a serial port of the machine, its master what the port is connected to. */
struct SerialLine {
    std::string port;
    FarEnd farEnd;
    kv::os::UniqueFd master;
    /** Kept open, so that the line stays up while no program has the port open. */
    kv::os::UniqueFd slave;
    std::string slavePath;
};

/**
 * Makes a pseudo-terminal for each serial port that is a terminal. To be called on the desk: only root may
 * make one on a machine. Throws std::system_error where that fails.
 */
std::vector<SerialLine> openSerialLines(const MachineDescription& description);

/** Shows the ports on the machine and serves their far ends. */
std::unique_ptr<ActivePart> makeSerialLines(MachineCore& core, std::vector<SerialLine> lines);

}  // namespace kvsim
