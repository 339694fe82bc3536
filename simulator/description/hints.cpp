#include "description/hints.h"

#include <algorithm>

#include "active/uio_device.h"
#include "command_line/nearest_word.h"

namespace kvsim {

namespace {

/** Drivers of the kernel and of the platform that hold PCI functions of target machines. */
const std::vector<std::string>& knownDrivers() {
    static const std::vector<std::string> names = {
        kUioDriver, "atemsys_pci", "pcieport", "serial", "8250_pci", "exar_serial",
        "rp2",      "e100",        "e1000",    "e1000e", "igb",      "igc",
        "ixgbe",    "i40e",        "ice",      "r8169",  "tg3",      "8139too"};
    return names;
}

void hintAtDriver(const PciFunction& function, const std::vector<PciDriver>& described,
                  std::vector<Hint>& hints) {
    const bool isKnown = std::ranges::find(knownDrivers(), function.driver) != knownDrivers().end() ||
                         std::ranges::find(described, function.driver, &PciDriver::name) != described.end();
    if (function.driver.empty() || isKnown) {
        return;
    }
    const std::optional<std::string> nearest = command_line::nearestWord(function.driver, knownDrivers());
    hints.push_back({"the driver \"" + function.driver + "\" is unknown" +
                         (nearest ? ": did you mean \"" + *nearest + "\"?"
                                  : ", and does nothing but hold the function; pci-drivers may name it"),
                     function.position});
}

}  // namespace

std::vector<Hint> hintsFor(const MachineDescription& machine, bool hasAllDrivers) {
    std::vector<Hint> hints;
    for (const PciFunction& function : machine.pciFunctions) {
        if (hasAllDrivers) {
            hintAtDriver(function, machine.pciDrivers, hints);
        }
        if (function.driver == kUioDriver && function.irq == 0) {
            hints.push_back({std::string(kUioDriver) + " makes no /dev/uioN for a function without an irq",
                             function.position});
        }
    }
    return hints;
}

}  // namespace kvsim
