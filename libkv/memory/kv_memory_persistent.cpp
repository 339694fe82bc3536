#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/memory.h>

#include "memory/kv_memory_persistent_internal.h"
#include "os/cancellation.h"

namespace {

using namespace kv::memory;
using kv::os::Mapping;
using kv::os::pointerTo;

/**
 * Whether an object of this name can be made. Without the list nobody knows whether an existing one is a
 * block that holds data: it is left alone and counts as made.
 */
bool canBeObject(const char* name) {
    const std::optional<Block> made = createShMem(name, O_EXCL);
    if (made) {
        unlinkMade(name, made->file.get());
    }
    return made || errno == EEXIST;
}

bool loadListForNewBlock(const char* name) {
    const LockedList locked = lockList();
    bool isLoaded = locked && loadLockedList();
    if (!isLoaded && (locked || errno != EWOULDBLOCK)) {
        if (!canBeObject(name)) {
            kv_printf(kv_debug, "PersMem file creation failed: %s\n", name);
            return false;
        }
        isLoaded = locked ? loadLockedList() : loadList();
    }
    if (!isLoaded) {
        kv_printf(kv_debug, "Could not add PersMem to list: %s\n", name);
    }
    return isLoaded;
}

/** Makes the block, unless another process has made it. */
Block* createBlock(const char* name) {
    const LockedList locked = lockForNewBlock();
    if (!locked) {
        kv_printf(kv_debug, "Could not add PersMem to list: %s\n", name);
        return nullptr;
    }
    if (Block* listed = findBlock(name)) {
        return listed;
    }
    std::optional<Block> made;
    if (std::string_view(name) != kListName) {
        (void)unlinkShMem(name);  // left by a process that ended before it listed the block
        made = createShMem(name);
    }
    if (!made) {
        kv_printf(kv_debug, "PersMem file creation failed: %s\n", name);
        return nullptr;
    }
    Block* added = addToList(name, std::move(*made));
    if (added == nullptr) {
        (void)unlinkShMem(name);
        kv_printf(kv_debug, "Could not add PersMem to list: %s\n", name);
    }
    return added;
}

Block* blockFor(const char* name) {
    if (!isListLoaded() && !loadListForNewBlock(name)) {
        return nullptr;
    }
    Block* block = findBlock(name);
    return block != nullptr ? block : createBlock(name);
}

uintptr_t rootOf(const Mapping& fragment) {
    return reinterpret_cast<uintptr_t>(fragment.get()) + sizeof(FragmentHead);
}

uintptr_t endOf(const Mapping& fragment) {
    return reinterpret_cast<uintptr_t>(fragment.get()) + fragment.lengthBytes();
}

/** Takes bytes from a fragment; null where it has not got them. The free bytes are compared as a size of 2
 * GiB or more has always been: it is negative. */
void* takeFrom(const Mapping& fragment, uint32_t size) {
    const std::atomic_ref firstFree(headOf(fragment).firstFree);
    uintptr_t taken = firstFree;
    do {
        if (taken < rootOf(fragment) || taken > endOf(fragment) ||
            static_cast<int32_t>(endOf(fragment) - taken) < static_cast<int32_t>(size)) {
            return nullptr;
        }
    } while (!firstFree.compare_exchange_weak(taken, taken + size));
    return pointerTo(taken);
}

void* takeFromAny(const Block& block, uint32_t size) {
    for (const Mapping& fragment : block.fragments) {
        if (void* memory = takeFrom(fragment, size)) {
            return memory;
        }
    }
    return nullptr;
}

/** Adds a fragment to a block and takes the memory from it; null when that fails. */
void* enlarge(Block& block, uint32_t size) {
    const uint64_t lengthBytes = ((uint64_t{size} + sizeof(FragmentHead)) / kObjectBytes + 1) * kObjectBytes;
    const Mapping* added = addFragment(block, lengthBytes, size);
    return added == nullptr ? nullptr : pointerTo(rootOf(*added));
}

void* allocate(Block& block, uint32_t size) {
    if (void* memory = takeFromAny(block, size)) {
        return memory;
    }
    if (const LockedList locked = lockForGrowth(block)) {
        void* memory = takeFromAny(block, size);  // from what another process has added
        memory = memory != nullptr ? memory : enlarge(block, size);
        if (memory != nullptr) {
            return memory;
        }
    }
    kv_printf(kv_debug, "Could not enlarge persistent memory\n");
    // Kept: models take any address for success.
    const Mapping& last = block.fragments.back();
    const uintptr_t firstFree = std::atomic_ref(headOf(last).firstFree);
    return pointerTo(std::clamp(firstFree, rootOf(last), endOf(last)));
}

}  // namespace

void* kv_allocPersistentMemory(const char* name, uint32_t size) try {
    const kv::os::CancellationHold hold;
    Block* block = blockFor(name);
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
    const Block* block = nullptr;
    if (loadList()) {
        block = findBlock(name);
        block = block != nullptr ? block : findNewBlock(name);
    }
    if (block == nullptr) {
        kv_printf(kv_debug, "Persistent memory not available %s\n", name);
        return nullptr;
    }
    return pointerTo(rootOf(block->fragments.front()));
} catch (const std::bad_alloc&) {
    return nullptr;
}

void kv_freePersistentMemory(void) try {
    const kv::os::CancellationHold hold;
    clearList();
} catch (const std::bad_alloc&) {
    // What could not be removed stays.
}
