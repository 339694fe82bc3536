// Prints the PCI functions of a simulated machine as the table that kv_pci_host takes, so that both machines
// have the same boards at the same places.
#include <cstdio>
#include <exception>
#include <string>

#include "kvsim/description_reader.h"
#include "layout/config_space.h"
#include "layout/pci_topology.h"

namespace {

constexpr std::size_t kRowBytes = 16;

void printRow(const std::string& bytes, std::size_t offset) {
    std::printf("%02zx:", offset);
    for (const unsigned char byte : bytes.substr(offset, kRowBytes)) {
        std::printf(" %02x", byte);
    }
    std::printf("\n");
}

void printFunction(const kvsim::PciFunction& function, const std::string& bytes) {
    std::printf("%02x:%02x.%x\n", function.bus, function.slot, function.function);
    for (std::size_t offset = 0; offset < bytes.size(); offset += kRowBytes) {
        if (bytes.find_first_not_of('\0', offset) < offset + kRowBytes) {
            printRow(bytes, offset);
        }
    }
    for (const kvsim::Bar& bar : function.bars) {
        std::printf("bar %u: %llx\n", bar.index, static_cast<unsigned long long>(bar.sizeBytes));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: pci_table MACHINE\n");
        return 2;
    }
    try {
        const auto machine = kvsim::readDescription(kvsim::findMachine(argv[1]));
        const kvsim::PciTopology topology(machine.pciFunctions);
        for (const kvsim::PciFunction& function : machine.pciFunctions) {
            printFunction(function, configSpace(function, topology));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pci_table: %s\n", error.what());
        return 1;
    }
    return 0;
}
