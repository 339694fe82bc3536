#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include <kv/diagnostics.h>

#include "os/cancellation.h"
#include "os/unique_fd.h"
#include "pci/kv_pci_internal.h"
#include "runtime/kv_root.h"

namespace {

using kv::os::openFile;
using kv::os::UniqueFd;
using kv::pci::SysfsText;

constexpr std::size_t kLongestBindFile = std::string_view("/sys/bus/pci/drivers//bind").size() + NAME_MAX;
constexpr const char* kProbeFile = "/sys/bus/pci/drivers_probe";

/** Hands a board's address to the kernel. What the kernel makes of it is not examined: see kv/pci.h. */
void writeAddress(const UniqueFd& file, const kv_PCIDevice& board) {
    const SysfsText address = kv::pci::sysfsAddress(board);
    (void)!::write(file.get(), address.c_str(), std::strlen(address.c_str()));
}

}  // namespace

int kv_pci_unbindDriver(kv_PCIDevice* device) {
    const kv::os::CancellationHold hold;
    if (device == nullptr) {
        kv_printf(kv_info, "kv_pci_unbindDriver: device is null.\n");
        return -1;
    }
    const kv_beRootObj root;
    const SysfsText path = kv::pci::sysfsPath(*device, "driver/unbind");
    const UniqueFd file = openFile(path.c_str(), O_WRONLY);
    if (!file) {
        const int error = errno;
        if (error == ENOENT) {
            return 0;  // no driver is bound
        }
        kv_printf(kv_info, "kv_pci_unbindDriver: Could not open unbind file %s for writing: %s\n",
                  path.c_str(), std::strerror(error));
        return -1;
    }
    writeAddress(file, *device);
    return 0;
}

int kv_pci_bindDriver(kv_PCIDevice* device, const char* driverName) try {
    const kv::os::CancellationHold hold;
    if (device == nullptr) {
        kv_printf(kv_info, "kv_pci_bindDriver: device is null.\n");
        return -1;
    }
    const kv_beRootObj root;
    (void)kv_pci_unbindDriver(device);  // the board may be free already
    const std::string path = kv::utils::formatString("/sys/bus/pci/drivers/%s/bind", driverName);
    const UniqueFd file = path.size() > kLongestBindFile ? UniqueFd() : openFile(path, O_WRONLY);
    if (!file) {
        kv_printf(kv_info, "Could not open bind file %s for writing.\n", path.c_str());
        return -1;
    }
    writeAddress(file, *device);
    return 0;
} catch (const std::bad_alloc&) {
    return -1;
}

int kv_pci_probeDriver(kv_PCIDevice* device) {
    const kv::os::CancellationHold hold;
    if (device == nullptr) {
        kv_printf(kv_info, "kv_pci_probeDriver: device is null.\n");
        return -1;
    }
    const kv_beRootObj root;
    const UniqueFd file = openFile(kProbeFile, O_WRONLY);
    if (!file) {
        kv_printf(kv_info, "Could not open probe file %s for writing.\n", kProbeFile);
        return -1;
    }
    writeAddress(file, *device);
    return 0;
}
