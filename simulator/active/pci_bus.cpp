#include "active/active_machine.h"
#include "active/pci_drivers.h"
#include "active/pci_slot.h"
#include "layout/pci_topology.h"

namespace kvsim {

namespace {

class PciBus : public ActivePart {
 public:
    explicit PciBus(MachineCore& core)
        : topology_(core.description.pciFunctions), slots_(makeSlots(core)), drivers_(core, slots_) {}

 private:
    using Slots = std::vector<std::unique_ptr<PciSlot>>;

    [[nodiscard]] Slots makeSlots(MachineCore& core) const {
        Slots slots;
        for (const PciFunction& function : core.description.pciFunctions) {
            slots.push_back(std::make_unique<PciSlot>(core, function, topology_));
        }
        return slots;
    }

    PciTopology topology_;
    Slots slots_;
    PciDrivers drivers_;
};

}  // namespace

std::unique_ptr<ActivePart> makePciBus(MachineCore& core) {
    return std::make_unique<PciBus>(core);
}

}  // namespace kvsim
