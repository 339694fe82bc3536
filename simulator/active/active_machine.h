#pragma once

#include <memory>
#include <vector>

#include "active/event_loop.h"
#include "active/file_service.h"
#include "active/physical_memory.h"
#include "kvsim/description.h"

namespace kvsim {

struct SerialLine;

/** Whether a machine has anything that acts, and so needs a process that serves it. */
bool isActive(const MachineDescription& description);

/** What the acting parts of a machine share. */
struct MachineCore {
    const MachineDescription& description;
    EventLoop& loop;
    FileService& files;
    PhysicalMemory memory = {};
};

/** A part of the machine that acts, from its making on until the last program has left. */
class ActivePart {
 public:
    virtual ~ActivePart() = default;
};

// Each makes its files at once; the plain ones have been written before.
std::unique_ptr<ActivePart> makePciBus(MachineCore& core);
std::unique_ptr<ActivePart> makeDmaManager(MachineCore& core);
std::unique_ptr<ActivePart> makeInterruptController(MachineCore& core);

/** All acting parts of a machine. */
class ActiveMachine {
 public:
    ActiveMachine(const MachineDescription& description, EventLoop& loop, FileService& files,
                  std::vector<SerialLine> serialLines);

 private:
    MachineCore core_;
    std::vector<std::unique_ptr<ActivePart>> parts_;
};

}  // namespace kvsim
