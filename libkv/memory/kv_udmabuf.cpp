#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glob.h>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kv/diagnostics.h>
#include <kv/memory.h>
#include <kv/process.h>

#include "memory/kv_udmabuf_pool.h"
#include "os/cancellation.h"
#include "os/mapping.h"
#include "os/unique_fd.h"
#include "runtime/kv_root.h"

namespace {

using kv::memory::roundUpToUnits;
using kv::os::Mapping;
using kv::os::openFile;
using kv::os::UniqueFd;
using kv::utils::formatString;

constexpr const char* kManager = "/dev/u-dma-buf-mgr";
constexpr const char* kDevicePrefix = "kv-udma-buf";
constexpr const char* kDeviceFolder = "/dev/";
constexpr const char* kDevicePattern = "/dev/kv-udma-buf*";
constexpr int kMaxBuffers = 256;
constexpr const char* kUncachedSyncMode = "2";  // opened with O_SYNC, it is mapped write-combined
constexpr std::size_t kAttributeSize = 1024;

struct GlobFree {
    void operator()(glob_t* matches) const noexcept { ::globfree(matches); }
};

/** @return the index of the first device that does not exist; kMaxBuffers where all do */
int firstFreeIndex() {
    for (int index = 0; index < kMaxBuffers; ++index) {
        std::array<char, 32> path;
        std::snprintf(path.data(), path.size(), "/dev/%s%d", kDevicePrefix, index);
        if (::access(path.data(), F_OK) != 0) {
            return index;
        }
    }
    return kMaxBuffers;
}

std::string devicePath(const kv_udmabuf_Handle& buffer) {
    return formatString("/dev/%s", buffer.deviceName);
}

std::string attributePath(const kv_udmabuf_Handle& buffer, const char* attribute) {
    return formatString("/sys/class/u-dma-buf/%s/%s", buffer.deviceName, attribute);
}

/** What the manager makes of a command is not examined: the files of the device tell. */
void command(const UniqueFd& manager, const std::string& text) {
    (void)!::write(manager.get(), text.data(), text.size());
}

void commandDelete(const UniqueFd& manager, const char* deviceName) {
    command(manager, formatString("delete %s\n", deviceName));
}

UniqueFd openOrReport(const std::string& path, int flags) {
    UniqueFd file = openFile(path, flags);
    if (!file) {
        kv_printf(kv_error, "Failed to open %s: %s\n", path.c_str(), std::strerror(errno));
    }
    return file;
}

/** Reads an attribute whose line is a number and nothing else. Empty where it is not, with the reason in
 * errno. */
std::optional<unsigned long> readNumber(const UniqueFd& file, int base) {
    std::array<char, kAttributeSize + 1> text{};
    if (::read(file.get(), text.data(), kAttributeSize) < 0) {
        return std::nullopt;
    }
    text[std::strcspn(text.data(), "\n")] = '\0';
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text.data(), &end, base);
    if (std::isxdigit(static_cast<unsigned char>(text[0])) == 0 || *end != '\0') {  // no sign, no space
        errno = EINVAL;
    }
    return errno == 0 ? std::optional(number) : std::nullopt;
}

bool readPhysicalAddress(kv_udmabuf_Handle* buffer) {
    const std::string path = attributePath(*buffer, "phys_addr");
    const UniqueFd file = openOrReport(path, O_RDONLY);
    if (!file) {
        return false;
    }
    const auto physicalAddr = readNumber(file, 16);
    if (!physicalAddr) {
        kv_printf(kv_error, "Failed to read %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    buffer->physicalAddr = *physicalAddr;
    kv_printf(kv_debug, "Physical address: 0x%x\n", static_cast<unsigned>(buffer->physicalAddr));
    return true;
}

int createBuffer(kv_udmabuf_Handle* buffer) {
    UniqueFd manager = openFile(kManager, O_WRONLY);
    if (!manager) {
        kv_printf(kv_error, "Failed to open u-dma-buf-mgr: %s\n", std::strerror(errno));
        return -1;
    }
    command(manager, formatString("create %s %lu\n", buffer->deviceName, buffer->length));
    manager.reset();

    const kv_beRootObj root;
    if (::chmod(devicePath(*buffer).c_str(), 0666) != 0) {
        // Not fatal: this process may be allowed to open the device all the same.
        kv_printf(kv_error, "Failed to set u-dma-buf permissions: %s\n", std::strerror(errno));
    }
    return 0;
}

bool setSyncMode(const kv_udmabuf_Handle& buffer) {
    const std::string path = attributePath(buffer, "sync_mode");
    const UniqueFd file(kv_openAsRoot(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file) {
        kv_printf(kv_error, "Failed to open %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    (void)!::write(file.get(), kUncachedSyncMode, std::strlen(kUncachedSyncMode));
    return true;
}

int mapBuffer(kv_udmabuf_Handle* buffer) {
    if (!setSyncMode(*buffer)) {
        return -1;
    }
    const std::string device = devicePath(*buffer);
    kv_printf(kv_debug, "Mapping %s\n", device.c_str());
    UniqueFd file = openOrReport(device, O_RDWR | O_SYNC);
    if (!file) {
        return -1;
    }
    buffer->userPtr = ::mmap(nullptr, buffer->length, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (buffer->userPtr == nullptr) {  // kept: MAP_FAILED passes, and the sizes below decide
        kv_printf(kv_error, "Failed to mmap %s: %s\n", device.c_str(), std::strerror(errno));
        return -1;
    }
    Mapping mapping(buffer->userPtr, buffer->length);
    file.reset();

    if (!readPhysicalAddress(buffer)) {
        return -1;
    }
    file = openOrReport(attributePath(*buffer, "size"), O_RDONLY);
    if (!file) {
        return -1;
    }
    (void)mapping.release();  // kept also where the driver made the buffer of another size
    return readNumber(file, 10) == buffer->length ? 0 : -1;
}

}  // namespace

kv_udmabuf_Handle* kv_udmabuf_allocBuffer(size_t length) try {
    const kv::os::CancellationHold hold;
    if (roundUpToUnits(length) == 0) {
        return nullptr;
    }
    const int index = firstFreeIndex();
    if (index == kMaxBuffers) {
        kv_printf(kv_error, "Maximum of %d buffers are supported by the u-dma-buf-mgr.\n", kMaxBuffers);
        return nullptr;
    }
    auto buffer = std::make_unique<kv_udmabuf_Handle>();
    std::snprintf(buffer->deviceName, sizeof buffer->deviceName, "%s%d", kDevicePrefix, index);
    buffer->length = length;
    if (createBuffer(buffer.get()) != 0 || mapBuffer(buffer.get()) != 0) {
        return nullptr;  // a device that was made stays until kv_udmabuf_deleteAllBuffers()
    }
    return buffer.release();
} catch (const std::bad_alloc&) {
    return nullptr;
}

int kv_udmabuf_freeBuffer(kv_udmabuf_Handle* handle) try {
    const kv::os::CancellationHold hold;
    if (handle->userPtr != nullptr && ::munmap(handle->userPtr, handle->length) != 0) {
        return -1;
    }
    handle->userPtr = nullptr;  // whatever is mapped there when the caller tries again is not ours
    const UniqueFd manager = openFile(kManager, O_WRONLY);
    if (!manager) {
        return -1;
    }
    commandDelete(manager, handle->deviceName);
    delete handle;
    return 0;
} catch (const std::bad_alloc&) {
    return -1;
}

int kv_udmabuf_deleteAllBuffers(void) try {
    const kv::os::CancellationHold hold;
    const UniqueFd manager = openFile(kManager, O_WRONLY);
    if (!manager) {
        kv_printf(kv_warning, "Failed to open u-dma-buf-mgr: %s\n", std::strerror(errno));
        return -1;
    }
    glob_t matches{};
    const std::unique_ptr<glob_t, GlobFree> owner(&matches);
    (void)::glob(kDevicePattern, 0, nullptr, &matches);  // on failure there are no matches
    for (const char* path : std::span(matches.gl_pathv, matches.gl_pathc)) {
        commandDelete(manager, path + std::strlen(kDeviceFolder));
    }
    return 0;
} catch (const std::bad_alloc&) {
    return -1;
}
