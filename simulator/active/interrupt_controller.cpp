#include "active/active_machine.h"
#include "active/cpu_set.h"
#include "layout/soc_layout.h"

namespace kvsim {

namespace {

/** Which CPUs serve an interrupt: /proc/irq/N/smp_affinity and smp_affinity_list, two views of one set. */
class InterruptController : public ActivePart {
 public:
    explicit InterruptController(MachineCore& core) : cpus_(core.description.cpus) {
        for (const auto& [irq, handlers] : interruptHandlers(core.description)) {
            CpuSet& affinity = affinities_[irq] = ~CpuSet() >> (kMaxCpus - cpus_);
            const std::string folder = interruptFolder(irq);
            core.files.put(folder + "/smp_affinity_list",
                           std::make_shared<AttributeFile>(
                               0644u, [&affinity] { return listText(affinity) + "\n"; },
                               [this, &affinity](auto text) { return store(text, parseList, affinity); }));
            core.files.put(folder + "/smp_affinity",
                           std::make_shared<AttributeFile>(
                               0644u, [this, &affinity] { return maskText(affinity, cpus_) + "\n"; },
                               [this, &affinity](auto text) { return store(text, parseMask, affinity); }));
        }
    }

 private:
    int store(std::string_view text, int (*parse)(std::string_view, unsigned, CpuSet&),
              CpuSet& affinity) const {
        CpuSet wanted;
        if (const int error = parse(text, cpus_, wanted)) {
            return error;
        }
        if (wanted.none()) {
            return EINVAL;
        }
        affinity = wanted;
        return 0;
    }

    unsigned cpus_;
    std::map<unsigned, CpuSet> affinities_;  // entries stay where they are: files refer to them
};

}  // namespace

std::unique_ptr<ActivePart> makeInterruptController(MachineCore& core) {
    return std::make_unique<InterruptController>(core);
}

}  // namespace kvsim
