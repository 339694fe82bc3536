#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include <kv/diagnostics.h>
#include <kv/network.h>
#include <kv/process.h>
#include <kv/target.h>

#include "network/kv_ethernet_devices.h"
#include "network/kv_ethernet_labels.h"
#include "network/kv_host_link.h"
#include "os/cancellation.h"
#include "os/unique_fd.h"

namespace {

constexpr const char* kSystemInformationFolder = "/usr/kelvaro/sysinfo";
constexpr mode_t kFileMode = 0666;

/** Reserves room for the first bytes of a file, at least one. @return 0 or an error number */
int reserve(int fd, off_t size) {
    int error = EINTR;
    while (error == EINTR) {
        error = ::posix_fallocate(fd, 0, size);
    }
    return error;
}

/** Writes from the beginning of the file. @return 0 or an error number */
int writeAll(int fd, std::string_view text) {
    off_t place = 0;
    while (!text.empty()) {
        const ssize_t count = ::pwrite(fd, text.data(), text.size(), place);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        place += std::max(count, ssize_t{0});
        text.remove_prefix(static_cast<std::size_t>(std::max(count, ssize_t{0})));
    }
    return 0;
}

/**
 * Makes a text all that a file holds, in the file's place on the disk: readers that have it open see the new
 * text. Room is reserved first, so where the disk is full the file stays as it was; where writing fails the
 * old text is written back.
 *
 * @return 0 or an error number
 */
int replaceText(int fd, const std::string& text) {
    const auto size = static_cast<off_t>(text.size());
    struct stat before {};
    if (::fstat(fd, &before) != 0) {
        return errno;
    }
    std::string old(static_cast<std::size_t>(before.st_size), '\0');
    old.resize(static_cast<std::size_t>(std::max(::pread(fd, old.data(), old.size(), 0), ssize_t{0})));
    int error = size == 0 ? 0 : reserve(fd, size);
    if (error == 0) {
        error = writeAll(fd, text);
        if (error != 0) {
            (void)writeAll(fd, old);
        }
    }
    const off_t length = error == 0 ? size : before.st_size;  // what was reserved goes
    if (::ftruncate(fd, length) != 0 && error == 0) {
        error = errno;
    }
    return error;
}

int writeTranslationFile(const std::string& ethStr) {
    if (kv_fs_ensureDirExists(kSystemInformationFolder) != 0) {
        kv_printf(kv_error, "Failed to create directory: /usr/kelvaro/sysinfo\n");
        return -1;
    }
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC;
    kv::os::UniqueFd file(::open(kEthTranslateFile, kFlags | O_EXCL, kFileMode));
    const bool isNew = static_cast<bool>(file);
    if (!isNew && errno == EEXIST) {
        file.reset(::open(kEthTranslateFile, kFlags, kFileMode));
    }
    if (!file) {
        kv_printf(kv_error, "Failed to create file: %s\n", kEthTranslateFile);
        return -1;
    }
    int error = replaceText(file.get(), ethStr);
    if (::close(file.release()) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        kv_printf(kv_error, "Failed to write file: %s: %s\n", kEthTranslateFile, std::strerror(error));
        if (isNew) {
            (void)::unlink(kEthTranslateFile);  // empty, it would stand for a machine without interfaces
        }
        return -1;
    }
    return 0;
}

}  // namespace

int kv_translateEthernetInterfaces(void) try {
    const kv::os::CancellationHold hold;
    const auto devices = getEthernetDevices();
    if (!devices) {
        return -1;
    }
    const kv_TargetType targetType = kv_getTargetType();
    std::string ethStr;
    if (appendAxiEthInterfaces(ethStr) != 0) {
        return -1;
    }
    appendPciEthInterfaces(ethStr, devices->nodes, targetType, pciInterfaceName);
    kv_printf(kv_debug, "%s: ethStr before labeling: %s\n", "kv_translateEthernetInterfaces", ethStr.c_str());
    nameOnboardPorts(ethStr, targetType);
    numberModulePorts(ethStr);
    return writeTranslationFile(ethStr);
} catch (const std::exception&) {
    return -1;
}
