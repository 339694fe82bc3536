// The boards of a machine, acting behind the registers and interrupt lines that a real kernel's PCI host
// gives them. Says "ready" once they are all there, and goes on until it is ended.
#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

#include "board/kernel_memory.h"
#include "board/kernel_slot.h"
#include "kvsim/description_reader.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: system_board MACHINE\n");
        return 2;
    }
    try {
        const auto machine = kvsim::readDescription(kvsim::findMachine(argv[1]));
        kvsim::EventLoop loop;
        KernelMemory memory;
        std::vector<std::unique_ptr<KernelSlot>> slots;
        for (const kvsim::PciFunction& function : machine.pciFunctions) {
            if (!function.board.empty()) {
                slots.push_back(std::make_unique<KernelSlot>(function, loop, memory));
            }
        }
        std::puts("ready");
        std::fflush(stdout);
        loop.run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "system_board: %s\n", error.what());
        return 1;
    }
    return 0;
}
