#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/memory.h>

#include "memory/kv_memory_persistent_internal.h"
#include "os/cancellation.h"

namespace {

using namespace kv::memory;
using kv::os::Mapping;
using kv::os::pointerTo;

/** Makes the head of a fragment that has just been mapped. */
FragmentHead* makeFragment(void* mapping, std::size_t sizeBytes, uint32_t usedBytes) {
    const auto address = reinterpret_cast<uintptr_t>(mapping);
    const uintptr_t root = address + sizeof(FragmentHead);
    auto* fragment = static_cast<FragmentHead*>(mapping);
    *fragment = {.fileDesc = 0,
                 .totalSize = 0,
                 .nextDesc = nullptr,
                 .size = sizeBytes,
                 .address = address,
                 .root = root,
                 .firstFree = root + usedBytes};
    return fragment;
}

FragmentHead* createBlock(const std::string& name) {
    // Asked first: without the list nobody knows whether an object of this name is a block that holds data.
    if (!loadList()) {
        kv_printf(kv_debug, "Could not add PersMem to list: %s\n", name.c_str());
        return nullptr;
    }
    if (FragmentHead* listed = getMemDesc(name.c_str())) {
        return listed;  // the list could not be loaded when it was asked for the name
    }
    SharedObject object;
    if (name != kListName) {
        (void)::shm_unlink(("/" + name).c_str());  // left by a process that ended before it listed the block
        object = createShMem(name, Content::Fragment);
    }
    if (!object) {
        kv_printf(kv_debug, "PersMem file creation failed: %s\n", name.c_str());
        return nullptr;
    }
    FragmentHead* block = makeFragment(object.mapping.get(), kObjectBytes, 0);
    block->fileDesc = object.file.get();
    block->totalSize = kObjectBytes;
    if (!addToList(name, block, std::move(object.file))) {
        kv_printf(kv_debug, "Could not add PersMem to list: %s\n", name.c_str());
        return nullptr;
    }
    (void)object.mapping.release();  // mapped until the process ends: the model holds pointers into it
    return block;
}

/** Free bytes as the fit compares them: a size of 2 GiB or more is negative there. */
int32_t freeBytes(const FragmentHead& fragment) {
    const uintptr_t end = fragment.address + fragment.size;
    return fragment.firstFree > end ? -1 : static_cast<int32_t>(end - fragment.firstFree);
}

void* handOut(FragmentHead& fragment, uint32_t size) {
    return pointerTo(std::exchange(fragment.firstFree, fragment.firstFree + size));
}

/** Adds a fragment to a block and takes the memory from it; null when that fails. */
void* enlarge(FragmentHead& first, FragmentHead& last, uint32_t size) {
    const uint64_t lengthBytes = ((uint64_t{size} + sizeof(FragmentHead)) / kObjectBytes + 1) * kObjectBytes;
    const uint64_t newTotal = first.totalSize + lengthBytes;
    errno = EFBIG;  // the total has 32 bits
    if (newTotal > std::numeric_limits<uint32_t>::max() ||
        ::ftruncate(first.fileDesc, static_cast<off_t>(newTotal)) != 0) {
        kv_printf(kv_debug, "ftruncate failed: %s\n", std::strerror(errno));
        return nullptr;
    }
    Mapping mapping = mapNewFragment(first.fileDesc, lengthBytes, first.totalSize);
    if (!mapping) {
        kv_printf(kv_debug, "mmaping additional memory failed: %s\n", std::strerror(errno));
        return nullptr;
    }
    FragmentHead* fragment = makeFragment(mapping.release(), lengthBytes, size);
    std::atomic_ref(last.nextDesc) =
        fragment;  // after its head, so that a process killed here leaves no half-made one
    first.totalSize = static_cast<uint32_t>(newTotal);
    return pointerTo(fragment->root);
}

void* allocate(FragmentHead& first, uint32_t size) {
    FragmentHead* last = &first;
    for (FragmentHead* fragment = &first; fragment != nullptr; fragment = fragment->nextDesc) {
        if (freeBytes(*fragment) >= static_cast<int32_t>(size)) {
            return handOut(*fragment, size);
        }
        last = fragment;
    }
    if (void* memory = enlarge(first, *last, size)) {
        return memory;
    }
    kv_printf(kv_debug, "Could not enlarge persistent memory\n");
    return pointerTo(last->firstFree);  // kept: models take any address for success
}

}  // namespace

void* kv_allocPersistentMemory(const char* name, uint32_t size) try {
    const kv::os::CancellationHold hold;
    FragmentHead* block = getMemDesc(name);
    if (block == nullptr) {
        block = createBlock(name);
    }
    if (block == nullptr) {
        kv_printf(kv_error, "Persistent memory not available: %s - creating failed\n", name);
        return nullptr;
    }
    return allocate(*block, size);
} catch (const std::bad_alloc&) {
    return nullptr;
}

void* kv_getPersistentMemory(const char* name) try {
    const kv::os::CancellationHold hold;
    const FragmentHead* block = getMemDesc(name);
    if (block == nullptr) {
        kv_printf(kv_debug, "Persistent memory not available %s\n", name);
        return nullptr;
    }
    return pointerTo(block->root);
} catch (const std::bad_alloc&) {
    return nullptr;
}

void kv_freePersistentMemory(void) try {
    const kv::os::CancellationHold hold;
    clearList();
} catch (const std::bad_alloc&) {
    // What could not be removed stays.
}
