#include <algorithm>
#include <array>
#include <optional>
#include <unistd.h>

#include <kv/diagnostics.h>

#include "os/cancellation.h"
#include "os/unique_fd.h"
#include "pci/kv_pci_internal.h"
#include "runtime/kv_root.h"

namespace {

using kv::os::PciAccessPtr;
using kv::os::PciDevicePtr;
using kv::pci::orOnFailure;

// Saved in this order; the command register follows as the last element.
constexpr std::array kSavedDwords = {PCI_BASE_ADDRESS_0, PCI_BASE_ADDRESS_1, PCI_BASE_ADDRESS_2,
                                     PCI_BASE_ADDRESS_3, PCI_BASE_ADDRESS_4, PCI_BASE_ADDRESS_5,
                                     PCI_INTERRUPT_LINE};
constexpr std::size_t kSavedCommand = kSavedDwords.size();

/** In place of the command register, whose upper bits are never set: the board was there but not readable. */
constexpr uint32_t kNotSaved = 0xFFFFFFFF;

constexpr int kHeaderSize = 64;

using SaveArea = std::array<uint32_t, kSavedCommand + 1>;

enum class Outcome { Done, Failed, Absent };

/**
 * Runs an operation on function 0 of a board through a fresh access object. Failed where the operation
 * returns false, or where the system lists the function but its vendor id cannot be read.
 */
template <typename Operation>
Outcome withPresentDevice(const kv_PCIDevice& board, Operation operation) {
    const bool isListed = ::access(kv::pci::sysfsPath(board, "").c_str(), F_OK) == 0;
    const Outcome unread = isListed ? Outcome::Failed : Outcome::Absent;
    return orOnFailure(unread, [&] {
        const PciAccessPtr access = kv::os::openPciAccess();
        const PciDevicePtr device = kv::os::getPciDevice(*access, board.bus, board.slot, 0);
        const auto vendor = kv::os::readRegister(*device, PCI_VENDOR_ID, sizeof(u16));
        if (!vendor) {
            return unread;
        }
        if (*vendor == kv::os::kAbsentVendorId) {
            return Outcome::Absent;
        }
        return operation(*device) ? Outcome::Done : Outcome::Failed;
    });
}

/** Empty where a register cannot be read. */
std::optional<SaveArea> readConfiguration(pci_dev& device) {
    SaveArea saved;
    for (std::size_t i = 0; i < saved.size(); ++i) {
        const auto value = i == kSavedCommand ? kv::os::readRegister(device, PCI_COMMAND, sizeof(u16))
                                              : kv::os::readRegister(device, kSavedDwords[i], sizeof(u32));
        if (!value) {
            return std::nullopt;
        }
        saved[i] = *value;
    }
    return saved;
}

}  // namespace

void kvPCI_backupPCIConfig(kv_PCIDevice* pciinfo, uint32_t* configSave) {
    const kv::os::CancellationHold hold;
    const Outcome outcome = withPresentDevice(*pciinfo, [configSave](pci_dev& device) {
        const auto configuration = readConfiguration(device);
        if (configuration) {
            std::ranges::copy(*configuration, configSave);
        }
        return configuration.has_value();
    });
    if (outcome == Outcome::Failed) {
        configSave[kSavedCommand] = kNotSaved;
    }
    if (outcome != Outcome::Done) {
        kv_printf(kv_error, "PCI header backup: device not found (bus: %d / slot: %d)\n", pciinfo->bus,
                  pciinfo->slot);
    }
}

void kvPCI_restorePCIConfig(kv_PCIDevice* pciinfo, const uint32_t* configSave) {
    const kv::os::CancellationHold hold;
    const kv_beRootObj root;
    const bool restored =
        configSave[kSavedCommand] != kNotSaved &&
        withPresentDevice(*pciinfo, [configSave](pci_dev& device) {
            (void)kv::os::openConfig(device, O_RDWR);  // whether writes arrive is not examined
            for (std::size_t i = 0; i < kSavedDwords.size(); ++i) {
                pci_write_long(&device, kSavedDwords[i], configSave[i]);
            }
            pci_write_word(&device, PCI_COMMAND, static_cast<u16>(configSave[kSavedCommand]));
            pci_write_byte(&device, PCI_COMMAND, PCI_COMMAND_MEMORY | PCI_COMMAND_MASTER);
            return true;
        }) == Outcome::Done;
    if (!restored) {
        kv_printf(kv_error, "PCI header restore: device not found (bus: %d / slot: %d)\n", pciinfo->bus,
                  pciinfo->slot);
    }
}

void kvPCI_printPCIConfig(kv_PCIDevice* pciinfo) {
    const kv::os::CancellationHold hold;
    (void)withPresentDevice(*pciinfo, [](pci_dev& device) {  // an absent board prints nothing
        for (int offset = 0; offset < kHeaderSize; offset += 4) {
            kv_printf(kv_info, "config[0x%x] = 0x%x\n", offset, pci_read_long(&device, offset));
        }
        return true;
    });
}

int kv_pci_openPciConfig(kv_PCIDevice* pciDev, int flags) {
    const kv::os::CancellationHold hold;
    const kv_beRootObj root;
    return ::open(kv::pci::sysfsPath(*pciDev, "config").c_str(), flags);
}
