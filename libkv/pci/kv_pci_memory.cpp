#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sys/mman.h>

#include <kv/diagnostics.h>

#include "os/cancellation.h"
#include "os/unique_fd.h"
#include "pci/kv_pci_internal.h"
#include "runtime/kv_root.h"

namespace {

using kv::os::openFile;
using kv::os::UniqueFd;
using kv::pci::SysfsText;

constexpr const char* kMemoryDevice = "/dev/mem";
constexpr std::size_t kEnableTextSize = 9;
constexpr uint64_t kBarFlagBits = 0xF;

UniqueFd openOrWarn(const SysfsText& path, int flags) {
    UniqueFd file = openFile(path.c_str(), flags);
    if (!file) {
        kv_printf(kv_warning, "Failed to open %s: %s\n", path.c_str(), std::strerror(errno));
    }
    return file;
}

/** Where a BAR is in the machine's memory; BaseAddress alone lacks what is above 4 GiB. */
uint64_t physicalAddress(const kv_PCIDevice& board, uint32_t bar) {
    const uint64_t raw = board.BaseAddress_raw[bar];
    return raw > UINT32_MAX ? raw & ~kBarFlagBits : board.BaseAddress[bar];
}

/** Empty when the file could not be read, which is then logged. */
std::optional<bool> isPciDeviceEnabled(const SysfsText& enableFile) {
    const UniqueFd file = openOrWarn(enableFile, O_RDONLY);
    if (!file) {
        return std::nullopt;
    }
    std::array<char, kEnableTextSize + 1> text{};
    if (::read(file.get(), text.data(), kEnableTextSize) < 0) {
        kv_printf(kv_warning, "Failed to read %s: %s\n", enableFile.c_str(), std::strerror(errno));
        return std::nullopt;
    }
    return std::strtol(text.data(), nullptr, 10) != 0;
}

void setPciDeviceEnable(const SysfsText& enableFile) {
    const UniqueFd file = openOrWarn(enableFile, O_RDWR);
    if (file && ::write(file.get(), "1", 1) < 0) {
        kv_printf(kv_warning, "Failed to write %s: %s\n", enableFile.c_str(), std::strerror(errno));
    }
}

void* reportMapFailure(int error) {
    kv_printf(kv_error, "Failed opening PCI device: %s\n", std::strerror(error));
    return nullptr;
}

}  // namespace

void* kv_mapMemory(kv_PCIDevice* dev, uint32_t bar) {
    const kv::os::CancellationHold hold;
    if (bar >= KV_PCI_BARS) {
        return reportMapFailure(EINVAL);
    }
    const kv_beRootObj root;

    const SysfsText enableFile = kv::pci::sysfsPath(*dev, "enable");
    if (isPciDeviceEnabled(enableFile) == false) {
        setPciDeviceEnable(enableFile);
    }

    const SysfsText resourceFile = kv::pci::sysfsPath(*dev, SysfsText("resource%u", bar).c_str());
    kv_printf(kv_debug, "Opening: %s\n", resourceFile.c_str());
    UniqueFd file = openFile(resourceFile.c_str(), O_RDWR);
    if (!file) {
        return reportMapFailure(errno);
    }

    // The resource file shows the page that a BAR is in from its start, where another board's may be; a BAR
    // inside a page is reached by its address.
    const auto pageSize = static_cast<uint32_t>(::sysconf(_SC_PAGESIZE));
    const uint32_t lead = dev->BaseAddress[bar] % pageSize;
    off_t offset = 0;
    if (lead != 0) {
        file.reset();
        file = openFile(kMemoryDevice, O_RDWR);
        offset = static_cast<off_t>(physicalAddress(*dev, bar) - lead);
    }
    if (!file) {
        return reportMapFailure(errno);
    }
    void* mapping = ::mmap(nullptr, std::size_t{dev->Length[bar]} + lead, PROT_READ | PROT_WRITE, MAP_SHARED,
                           file.get(), offset);
    if (mapping == MAP_FAILED) {
        return reportMapFailure(errno);
    }
    auto* firstByte = static_cast<std::byte*>(mapping) + lead;
    dev->VirtAddress[bar] = reinterpret_cast<uintptr_t>(firstByte);
    return firstByte;
}

void* kv_mapIo(kv_PCIDevice* /*device*/, uint32_t /*bar*/) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_error, "%s() not implemented for aarch64\n", __func__);
    return nullptr;
}

void kv_showPciDevice(kv_PCIDevice* pDev) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_info, "VendorId = 0x%x, DeviceId = 0x%x\n", pDev->VendorId, pDev->DeviceId);
    kv_printf(kv_info, "Subsystem Device ID = 0x%x\nSubsystem Vendor ID = 0x%x\n", pDev->SubDeviceId,
              pDev->SubVendorId);
    kv_printf(kv_info, "bus = %d, slot = %d\n", pDev->bus, pDev->slot);
    // The heading names a column that the rows do not have; readers know it so.
    kv_printf(kv_info, "    Phys   Virtual   Length IO/Mem\n");
    for (unsigned bar = 0; bar < KV_PCI_BARS; ++bar) {
        kv_printf(kv_info, "%08x %08x %08x\n", pDev->BaseAddress[bar],
                  static_cast<uint32_t>(pDev->VirtAddress[bar]), pDev->Length[bar]);
    }
}
