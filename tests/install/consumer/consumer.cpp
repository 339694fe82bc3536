#include <cstdio>

#include <brevane/Kernel.h>
#include <brevane/Logger.h>  // brings the headers of Boost.Log with it
#include <kv/pci.h>
#include <kv/target.h>

/** A model of one block: it looks for the analog board when it is initialised. */
int main(int argc, char** argv) {
    const brevane::Model model{
        .name = "consumer",
        .initialize =
            [] {
                kv_PCIDevice board{};
                const int missing = kv_findPciDevice(&board, "Consumer", 0x1b5a, 0x0a18, KV_PCI_ANY_SUBSYSTEM,
                                                     KV_PCI_ANY_SUBSYSTEM, 1, 0, -1);
                std::printf("%s, board at bus %u\n", kv_getTargetMarketingName(),
                            missing != 0 ? 0 : board.bus);
            },
        .step = [] {},
    };
    return brevane::runMain(argc, argv, model);
}
