#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <sys/stat.h>

#include <kv/diagnostics.h>
#include <kv/soc.h>

#include "os/cancellation.h"
#include "os/directory.h"
#include "os/unique_fd.h"
#include "runtime/kv_root.h"

namespace {

using kv::os::UniqueFd;
using kv::utils::formatString;

constexpr const char* kUioDriver = "uio_kelvaro";
constexpr const char* kNewIdFile = "/sys/bus/pci/drivers/uio_kelvaro/new_id";
constexpr mode_t kReadableAndWritableByAll = 0666;

bool isDeviceBoundToUio(const std::string& uioFolder) {
    return ::access(uioFolder.c_str(), F_OK) == 0;
}

/** Lets the driver serve boards of this identity; it takes those that no driver holds at once. */
bool announceIdentity(const kv_PCIDevice& board) {
    const kv_beRootObj root;
    const UniqueFd file = kv::os::openFile(kNewIdFile, O_WRONLY);
    if (!file) {
        kv_printf(kv_info, "bindDeviceToUio: open(new_id) failed: %s\n", std::strerror(errno));
        return false;
    }
    const std::string identity = formatString("%4x %4x", board.VendorId, board.DeviceId);
    const ssize_t written = ::write(file.get(), identity.data(), identity.size());
    const bool isKnownAlready = written < 0 && errno == EEXIST;
    if (written == static_cast<ssize_t>(identity.size()) || isKnownAlready) {
        return true;
    }
    if (written >= 0) {
        errno = EIO;  // a short write has no errno of its own
    }
    kv_printf(kv_info, "bindDeviceToUio: write(new_id) failed: %s (bytes=%d)\n", std::strerror(errno),
              static_cast<int>(written));
    return false;
}

bool bindDeviceToUio(kv_PCIDevice* board, const std::string& uioFolder) {
    if (!announceIdentity(*board)) {
        return false;
    }
    if (isDeviceBoundToUio(uioFolder)) {
        return true;
    }
    if (kv_pci_unbindDriver(board) != 0) {
        kv_printf(kv_info, "bindDeviceToUio: unbind existing driver failed.\n");
        return false;
    }
    if (kv_pci_bindDriver(board, kUioDriver) != 0) {
        kv_printf(kv_info, "bindDeviceToUio: bind to uio_kelvaro failed.\n");
        return false;
    }
    return true;
}

/** The number in the name of the folder's first "uioN"; -1 with errno set. */
int getUioDeviceNumber(const std::string& uioFolder) {
    const kv::os::DirectoryPtr directory = kv::os::openDirectory(uioFolder.c_str());
    if (!directory) {
        return -1;
    }
    while (const dirent* entry = ::readdir(directory.get())) {
        int number = -1;
        if (std::sscanf(entry->d_name, "uio%d", &number) == 1 && number >= 0) {
            return number;
        }
    }
    errno = ENODEV;
    return -1;
}

bool fixUioDevicePermissions(int uioNumber) {
    const kv_beRootObj root;
    return ::chmod(formatString("/dev/uio%d", uioNumber).c_str(), kReadableAndWritableByAll) == 0;
}

}  // namespace

int kv_uio_bindDeviceToUio(kv_PCIDevice* pciDev) try {
    const kv::os::CancellationHold hold;
    const std::string uioFolder =
        formatString("/sys/bus/pci/devices/0000:%02x:%02x.0/uio", pciDev->bus, pciDev->slot);
    if (!isDeviceBoundToUio(uioFolder) && !bindDeviceToUio(pciDev, uioFolder)) {
        return -1;
    }
    const int uioNumber = getUioDeviceNumber(uioFolder);
    if (uioNumber < 0 || !fixUioDevicePermissions(uioNumber)) {
        return -1;
    }
    return uioNumber;
} catch (const std::bad_alloc&) {
    return -1;
}
