#pragma once

#include <compare>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

extern "C" {
#include <pci/pci.h>
}

namespace kv::os {

constexpr const char* kPciDevicesDirectory = "/sys/bus/pci/devices";

/** The vendor id that is read where no function answers. */
constexpr u16 kAbsentVendorId = 0xFFFF;

/** A libpci failure after which the call in progress cannot go on. */
class PciError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct PciAccessDeleter {
    void operator()(pci_access* access) const noexcept { pci_cleanup(access); }
};
using PciAccessPtr = std::unique_ptr<pci_access, PciAccessDeleter>;

struct PciDeviceDeleter {
    void operator()(pci_dev* device) const noexcept { pci_free_dev(device); }
};
using PciDevicePtr = std::unique_ptr<pci_dev, PciDeviceDeleter>;

/** A libpci message hook that does nothing: unreadable registers show as values of all ones. */
void nop(char* msg, ...) __attribute__((format(printf, 1, 2)));

/**
 * Creates and initialises an access object whose fatal errors throw PciError in place of ending the process,
 * and whose warnings go nowhere. Throws PciError when the machine offers no access to PCI.
 */
PciAccessPtr openPciAccess();

/** The place of a PCI function. */
struct PciAddress {
    unsigned domain;
    unsigned bus;
    unsigned slot;
    unsigned function;

    auto operator<=>(const PciAddress&) const = default;
};

/** Whether libpci reads sysfs, and not the hardware itself. */
bool readsSysfs(const pci_access& access);

/**
 * The functions that sysfs lists, in ascending order. Throws PciError when the list cannot be read as a whole
 * or names something else.
 */
std::vector<PciAddress> listedFunctions();

/** Fills the object's device list. Throws PciError when the list cannot be read or lacks a function. */
void scanBus(pci_access& access);

/**
 * Fills fields of a device (PCI_FILL_...). Throws PciError when they cannot be read; the device then counts
 * as not filled at all, so that a later call reads again.
 */
void fillInfo(pci_dev& device, int fields);

/** Whether sysfs no longer has a device. */
bool hasVanished(const pci_dev& device);

/**
 * Opens a device's configuration space, O_RDONLY or O_RDWR, for the libpci calls that follow; they keep it
 * open until they turn to another device. libpci would open it without close-on-exec, and a program that is
 * started meanwhile would inherit it.
 *
 * @return false where it cannot be opened
 */
bool openConfig(pci_dev& device, int flags);

/** Reads a register of one to four bytes. Empty where that fails, which libpci's own reads show as all ones.
 */
std::optional<u32> readRegister(pci_dev& device, int offset, int sizeBytes);

/**
 * A handle for one function in domain 0 with its configuration space opened for reading; never empty, also
 * where there is no such function.
 */
PciDevicePtr getPciDevice(pci_access& access, unsigned bus, unsigned slot, unsigned function);

/** Whether a function answers at all. */
bool isPresent(pci_dev& device);

}  // namespace kv::os
