#include <atomic>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/memory.h>
#include <kv/threads.h>

#include "memory/kv_udmabuf_pool.h"
#include "os/cancellation.h"
#include "os/mapping.h"
#include "os/sd_device.h"
#include "os/unique_fd.h"

namespace {

using namespace kv::memory;
using kv::os::pointerTo;

constexpr const char* kSubsystem = "u-dma-buf";
constexpr const char* kCachedBuffer = "cached-buffer-pcie";
constexpr const char* kCachedBufferFolder = "/sys/class/u-dma-buf/cached-buffer-pcie";

/** Null while the buffer is not mapped. */
CachedMemory* g_cachedMemory = nullptr;

/**
 * Made by the first allocation or free; null where it cannot be made, and the next one tries again. Never
 * destroyed: exit handlers free memory too.
 */
void* cachedMemoryMutex() {
    static std::atomic<void*> g_cachedMemoryMutex = nullptr;
    void* present = g_cachedMemoryMutex;
    if (present != nullptr) {
        return present;
    }
    void* const made = kv_createMutex(false);
    if (made == nullptr || g_cachedMemoryMutex.compare_exchange_strong(present, made)) {
        return made;
    }
    kv_destroyMutex(made);  // another thread was first
    return present;
}

struct MutexUnlock {
    void operator()(void* mutex) const noexcept { kv_unlockMutex(mutex); }
};
using MutexGuard = std::unique_ptr<void, MutexUnlock>;

/** Empty where there is no mutex. */
MutexGuard lockCachedMemory() {
    void* const mutex = cachedMemoryMutex();
    if (mutex != nullptr) {
        kv_lockMutex(mutex);
    }
    return MutexGuard(mutex);
}

/** The cached buffer as the system made it. */
struct CachedBuffer {
    uintptr_t physAddr;
    std::size_t size;
    kv::os::UniqueFd file;
};

/** Throws std::invalid_argument or std::out_of_range for an attribute that is no number. */
std::optional<CachedBuffer> openCachedBuffer() {
    const kv::os::SdDevicePtr device = kv::os::findDevice(kSubsystem, kCachedBuffer);
    if (!device) {
        kv_printf(kv_error, "u-dma-buf: Failed to find \"%s\"\n", kCachedBuffer);
        return std::nullopt;
    }
    const char* text = kv::os::attributeOf(*device, "phys_addr");
    if (text == nullptr) {
        kv_printf(kv_error, "u-dma-buf: Failed to read physical address\n");
        return std::nullopt;
    }
    const uintptr_t physAddr = std::stoul(text, nullptr, 16);
    kv_printf(kv_debug, "u-dma-buf: phys_addr: %p\n", pointerTo(physAddr));

    text = kv::os::attributeOf(*device, "size");
    if (text == nullptr) {
        kv_printf(kv_error, "u-dma-buf: Failed to read buffer size\n");
        return std::nullopt;
    }
    const std::size_t size = std::stoul(text, nullptr, 10);
    kv_printf(kv_debug, "u-dma-buf: size: %d\n", static_cast<int>(size));

    const char* node = kv::os::nodeOf(*device);
    if (node == nullptr) {
        kv_printf(kv_error, "u-dma-buf: Failed to read device name\n");
        return std::nullopt;
    }
    kv_printf(kv_debug, "u-dma-buf: devname: %s\n", node);
    kv::os::UniqueFd file = kv::os::openFile(node, O_RDWR);
    if (!file) {
        kv_printf(kv_error, "u-dma-buf: Failed to open %s\n", node);
        return std::nullopt;
    }
    return CachedBuffer{physAddr, size, std::move(file)};
}

bool mapCachedBuffer() {
    const auto buffer = openCachedBuffer();
    if (!buffer) {
        return false;
    }
    void* address = ::mmap(nullptr, buffer->size, PROT_READ | PROT_WRITE, MAP_SHARED, buffer->file.get(), 0);
    kv::os::Mapping mapping(address, buffer->size);
    // Kept: a mapping that failed is not told from one that did not; its blocks have addresses all the same.
    g_cachedMemory = new CachedMemory(reinterpret_cast<uintptr_t>(address), buffer->physAddr, buffer->size);
    (void)mapping.release();  // until the last block is freed
    return true;
}

void unmapCachedBuffer() {
    const std::unique_ptr<CachedMemory> memory(std::exchange(g_cachedMemory, nullptr));
    (void)::munmap(pointerTo(memory->virtAddr()), memory->size());  // fails where nothing could be mapped
}

}  // namespace

void* kv_udmabuf_allocCachedBuffer(size_t size, uintptr_t* physAddr) try {
    const kv::os::CancellationHold hold;
    *physAddr = 0;
    const std::size_t rounded = roundUpToUnits(size);
    if (rounded == 0) {
        return nullptr;
    }
    MutexGuard guard = lockCachedMemory();
    if (!guard) {
        return nullptr;
    }
    if (g_cachedMemory == nullptr && !mapCachedBuffer()) {
        guard.reset();
        kv_printf(kv_error, "u-dma-buf: Failed to initialize buffer stack.\n");
        return nullptr;
    }
    kv_printf(kv_debug, "u-dma-buf: Increasing allocation size from %zu to %zu\n", size, rounded);
    const CachedMemBlock* block = g_cachedMemory->allocate(rounded);
    if (block == nullptr) {
        return nullptr;
    }
    *physAddr = block->physAddr;
    return pointerTo(block->virtAddr);
} catch (const std::bad_alloc&) {
    return nullptr;
}

int kv_udmabuf_freeCachedBuffer(void* addr) {
    const kv::os::CancellationHold hold;
    if (addr == nullptr) {
        return -1;
    }
    MutexGuard guard = lockCachedMemory();
    const auto address = reinterpret_cast<uintptr_t>(addr);
    if (!guard || g_cachedMemory == nullptr || !g_cachedMemory->contains(address)) {
        return -1;
    }
    if (!g_cachedMemory->release(address)) {
        guard.reset();
        kv_printf(kv_warning, "u-dma-buf: Failed to free memory. Address does not match any allocation.\n");
        return -1;
    }
    if (g_cachedMemory->isUnused()) {
        kv_printf(kv_debug, "u-dma-buf: All allocations have been freed. Unmapping the buffer.\n");
        unmapCachedBuffer();
    }
    return 0;
}

void kv_udmabuf_printCachedMemoryBuffers(void) {
    const kv::os::CancellationHold hold;
    if (g_cachedMemory == nullptr) {
        kv_printf(kv_info, "[empty]\n");
        return;
    }
    int index = 0;
    for (const CachedMemBlock& block : g_cachedMemory->blocks()) {
        kv_printf(kv_info, "[%02d] virt: %p  phys: %p  size: %p  %s\n", index++, pointerTo(block.virtAddr),
                  pointerTo(block.physAddr), pointerTo(block.size), block.free ? "free" : "used");
    }
}

int kv_udmabuf_areCacheCoherentBuffersAvailable(void) {
    static std::atomic<int> cacheCoherentBufAvail = -1;
    if (cacheCoherentBufAvail == -1) {
        const kv::os::CancellationHold hold;
        const auto type = std::filesystem::status(kCachedBufferFolder).type();
        const bool isMissing =
            type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none;
        kv_printf(kv_debug, isMissing ? "u-dma-buf: cache-coherent buffers not available\n"
                                      : "u-dma-buf: cache-coherent buffers available\n");
        cacheCoherentBufAvail = isMissing ? 0 : 1;
    }
    return cacheCoherentBufAvail;
}
