#include "active/active_machine.h"

#include <algorithm>

#include "active/serial_lines.h"

namespace kvsim {

bool isActive(const MachineDescription& description) {
    const auto acts = [](const PciFunction& function) {
        return !function.driver.empty() || function.irq != 0 || !function.board.empty();
    };
    const auto isTerminal = [](const ClassDevice& device) { return device.terminal.has_value(); };
    const auto hasTerminal = [&isTerminal](const auto& device) {
        return std::ranges::any_of(device.classDevices, isTerminal);
    };
    return std::ranges::any_of(description.pciFunctions, hasTerminal) ||
           std::ranges::any_of(description.platformDevices, hasTerminal) || !description.pciDrivers.empty() ||
           !description.axiDevices.empty() || description.dmaMemory || description.cachedBuffer ||
           std::ranges::any_of(description.pciFunctions, acts);
}

ActiveMachine::ActiveMachine(const MachineDescription& description, EventLoop& loop, FileService& files,
                             std::vector<SerialLine> serialLines)
    : core_{.description = description, .loop = loop, .files = files} {
    parts_.push_back(makePciBus(core_));
    parts_.push_back(makeDmaManager(core_));
    parts_.push_back(makeInterruptController(core_));
    parts_.push_back(makeSerialLines(core_, std::move(serialLines)));
}

}  // namespace kvsim
