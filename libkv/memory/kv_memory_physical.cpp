#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <unistd.h>

#include <kv/diagnostics.h>
#include <kv/memory.h>
#include <kv/process.h>

#include "os/cancellation.h"
#include "os/unique_fd.h"

namespace {

constexpr const char* kPageMap = "/proc/self/pagemap";
constexpr uint64_t kFrameNumberBits = 0x7fffffffffffff;
constexpr std::size_t kSinglePage = 4096;

/** The uncached buffers by their addresses. What is left at exit stays, for the next process to remove. */
std::map<void*, kv_udmabuf_Handle*> g_physicalMemoryMap;

struct BufferFree {
    void operator()(kv_udmabuf_Handle* buffer) const { (void)kv_udmabuf_freeBuffer(buffer); }
};

void* refuse(const char* function) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_info,
              "%s is not, and will not, be defined in libkv for Linux. Use kv_allocPhysicalMemory_v2() "
              "instead.\n",
              function);
    return nullptr;
}

}  // namespace

void* kv_allocPhysicalMemory_cached(size_t /*size*/) {
    return refuse(__func__);
}

void* kv_allocPhysicalMemory_uncached(size_t /*size*/) {
    return refuse(__func__);
}

void* kv_allocPhysicalMemory_v2(size_t size, uintptr_t* physicalOut) try {
    *physicalOut = 0;
    return kv_udmabuf_areCacheCoherentBuffersAvailable() == 1
               ? kv_allocPhysicalMemory_v2_cached(size, physicalOut)
               : kv_allocPhysicalMemory_v2_uncached(size, physicalOut);
} catch (const std::bad_alloc&) {
    return nullptr;
}

void* kv_allocPhysicalMemory_v2_cached(size_t size, uintptr_t* physicalOut) {
    return kv_udmabuf_allocCachedBuffer(size, physicalOut);
}

void* kv_allocPhysicalMemory_v2_uncached(size_t size, uintptr_t* physicalOut) try {
    const kv::os::CancellationHold hold;
    *physicalOut = 0;
    kv_printf(kv_debug, "Allocating 0x%x bytes of physical memory\n", static_cast<unsigned>(size));
    if (size <= kSinglePage) {
        size = 2 * kSinglePage;
        kv_printf(kv_debug, " --> Single pages don't go into CMA. Allocating 0x%x\n",
                  static_cast<unsigned>(size));
    }
    if (g_physicalMemoryMap.empty() && kv_udmabuf_deleteAllBuffers() != 0) {
        kv_printf(kv_info,
                  "Failed to clear old u-dma-buffers. Do you have the required kernel modules inserted?\n");
        return nullptr;
    }
    std::unique_ptr<kv_udmabuf_Handle, BufferFree> buffer(kv_udmabuf_allocBuffer(size));
    if (buffer == nullptr) {
        kv_printf(kv_info, "Could not create buffer.\n");
        return nullptr;
    }
    g_physicalMemoryMap.emplace(buffer->userPtr, buffer.get());
    *physicalOut = buffer->physicalAddr;
    return buffer.release()->userPtr;  // freed by kv_freePhysicalMemory()
} catch (const std::bad_alloc&) {
    return nullptr;
}

void kv_freePhysicalMemory(void* ptr) {
    const kv::os::CancellationHold hold;
    if (ptr == nullptr || kv_udmabuf_freeCachedBuffer(ptr) == 0) {
        return;
    }
    const auto found = g_physicalMemoryMap.find(ptr);
    if (found == g_physicalMemoryMap.end()) {
        kv_printf(kv_info, "No buffer matching address %p was found to free\n", ptr);
        return;
    }
    if (kv_udmabuf_freeBuffer(found->second) != 0) {
        kv_printf(kv_info, "Could not free buffer %p.\n", ptr);
        delete found->second;  // the address is forgotten below, so nobody can try again
    }
    g_physicalMemoryMap.erase(found);
}

uintptr_t kv_getPhysicalBufferAddr(void* virtualAddress) {
    const kv::os::CancellationHold hold;
    // The kernel goes by the rights of whoever opened it.
    const kv::os::UniqueFd pageMap(kv_openAsRoot(kPageMap, O_RDONLY | O_CLOEXEC));
    if (!pageMap) {
        return 0;
    }
    const auto address = reinterpret_cast<uintptr_t>(virtualAddress);
    const auto pageSize = static_cast<uintptr_t>(::getpagesize());
    const uintptr_t page = address / pageSize;
    uint64_t entry = 0;
    const auto offset = static_cast<off_t>(page * sizeof entry);
    if (::lseek(pageMap.get(), offset, SEEK_SET) != offset ||
        ::read(pageMap.get(), &entry, sizeof entry) != sizeof entry) {
        return 0;
    }
    // Frames count in 4 KiB here whatever the page size is; an absent page is frame 0.
    return (address - page * pageSize) + ((entry & kFrameNumberBits) << 12);
}
