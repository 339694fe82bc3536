#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <tuple>

#include <kv/pci.h>

#include "os/pci_access.h"

/**
 * The access object that look-ups by index and topology scans share, its device list in bus order. Made by
 * the first call and kept until the process ends; devices that appear later are not in its list. Throws
 * kv::os::PciError when the machine offers no access to PCI; the next call then tries again.
 */
pci_access* kv_pci_access();

namespace kv::pci {

using BusOrderKey = std::tuple<int, int, int>;  // bus, device, function; the domain does not count

BusOrderKey busOrderKey(const pci_dev& device);

/** Re-links a device list into ascending bus order and returns its new head. */
pci_dev* sortIntoBusOrder(pci_dev* head);

constexpr int kFound = 0;
constexpr int kNotFound = 1;

/** A path or address of bounded length. */
class SysfsText {
 public:
    explicit SysfsText(const char* format, ...) KV_PRINTF_LIKE(2, 3);

    [[nodiscard]] const char* c_str() const noexcept { return text_.data(); }

 private:
    std::array<char, 320> text_;  // a file name has at most 255 characters
};

/** The sysfs address of function 0 of a board: 0000:BB:SS.0. */
SysfsText sysfsAddress(const kv_PCIDevice& device);

/** The path of a file of function 0 of a board: /sys/bus/pci/devices/0000:BB:SS.0/NAME. */
SysfsText sysfsPath(const kv_PCIDevice& device, const char* name);

/** Runs an operation on libpci; where libpci or memory gives up midway the result is @p failed. */
template <typename Result, typename Operation>
Result orOnFailure(Result failed, Operation operation) {
    try {
        return operation();
    } catch (const std::exception&) {
        return failed;
    }
}

}  // namespace kv::pci
