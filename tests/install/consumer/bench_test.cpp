#include <cstdio>
#include <fcntl.h>
#include <kvsim/description_reader.h>
#include <kvsim/machine.h>

#include <kv/pci.h>
#include <kv/serial.h>

/** A test of another project: enters a machine that was installed with the simulator and uses its hardware.
 */
int main() {
    try {
        kvsim::Machine(kvsim::readDescription(kvsim::findMachine("ember"))).enter();
    } catch (const kvsim::MachineUnavailable& unavailable) {
        std::printf("126 from a machine: %s\n", unavailable.what());
        return 126;
    }
    kv_PCIDevice board{};
    const int missing = kv_findPciDevice(&board, "Test", 0x1b5a, 0x0a18, KV_PCI_ANY_SUBSYSTEM,
                                         KV_PCI_ANY_SUBSYSTEM, 1, 0, -1);
    const bool portOpens = kv_serial_port_open(1, O_RDWR) >= 0;  // switches the GPIO lines of the machine
    std::printf("board at bus %u, port %s\n", missing != 0 ? 0 : board.bus, portOpens ? "open" : "closed");
    return missing != 0 || !portOpens ? 1 : 0;
}
