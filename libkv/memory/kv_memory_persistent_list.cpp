#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <sys/file.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <kv/diagnostics.h>

#include "memory/kv_memory_persistent_internal.h"

namespace kv::memory {

namespace {

constexpr uint32_t kMaxEntries = 1023;
constexpr std::size_t kIndexSlots = 2048;
constexpr auto kLockPatience = std::chrono::seconds(1);
constexpr auto kLockPause = std::chrono::milliseconds(1);

/** The list as this process holds it. */
struct List {
    OpenObject object;
    os::Mapping mapping;
    uint32_t* ListLength = nullptr; /**< number of entries, in the object */
    ListEntry* descList = nullptr;  /**< first entry, in the object */
    std::vector<Block> blocks;      /**< in the order of the list; they never move */
    /** By the hash of the name, or behind it: the block's position plus 1; 0 where no name stands. */
    std::array<uint16_t, kIndexSlots> index{};
};

/** Null while the list is not loaded. Not destroyed at exit: exit handlers use persistent memory too. */
List* loadedList = nullptr;

/** The entry's name; as long as its field where the terminator is missing. */
std::string_view nameOf(const ListEntry& entry) {
    return {entry.name, ::strnlen(entry.name, sizeof entry.name)};
}

/** Where a name stands in the index, or would stand. */
uint16_t& slotOf(List& list, std::string_view name) {
    std::size_t slot = std::hash<std::string_view>()(name) % kIndexSlots;
    while (list.index[slot] != 0 && nameOf(list.blocks[list.index[slot] - 1U].entry) != name) {
        slot = (slot + 1) % kIndexSlots;
    }
    return list.index[slot];
}
static_assert(kIndexSlots > kMaxEntries, "a search ends at an empty slot");

/** Allocates nothing: a block is in the list with its name or not at all. */
Block& append(List& list, Block block) {
    list.blocks.push_back(std::move(block));
    uint16_t& slot = slotOf(list, nameOf(list.blocks.back().entry));
    if (slot == 0) {  // the first of two with one name stays
        slot = static_cast<uint16_t>(list.blocks.size());
    }
    return list.blocks.back();
}

/** Copies the number of entries. A full list counts further attempts, too. */
uint32_t readCount(int fd) {
    uint32_t count = 0;
    (void)!::pread(fd, &count, sizeof count, 0);  // an object without its size holds none
    return std::min(count, kMaxEntries);
}

/** Copies the entries from one on. What the object should hold and does not is all zero. */
std::vector<ListEntry> readEntries(int fd, std::size_t first) {
    const std::size_t count = readCount(fd);
    std::vector<ListEntry> entries(count > first ? count - first : 0);
    (void)!::pread(fd, entries.data(), entries.size() * sizeof(ListEntry),
                   static_cast<off_t>(kEntriesOffset + first * sizeof(ListEntry)));
    return entries;
}

bool isLinked(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && status.st_nlink > 0;
}

bool openList(List& list) {
    list.object = openShMem(kListName, ::geteuid());
    const int fd = list.object.file.get();
    if (list.object && reserve(fd, 0, listBytes(readCount(fd)))) {
        list.mapping = mapList(fd);
    }
    if (!list.mapping) {
        kv_printf(kv_debug, "PersMem main file creation failed\n");
        kv_printf(kv_debug, "PersMem list initialization failed\n");
        return false;
    }
    auto* bytes = static_cast<std::byte*>(list.mapping.get());
    list.ListLength = reinterpret_cast<uint32_t*>(bytes);
    list.descList = reinterpret_cast<ListEntry*>(bytes + kEntriesOffset);
    list.blocks.reserve(kMaxEntries);
    return true;
}

bool attachBlock(Block& block, uid_t user) {
    const std::string_view name = nameOf(block.entry);
    kv_printf(kv_debug, "Open shMem /%.*s\n", static_cast<int>(name.size()), name.data());
    if (name.size() == sizeof block.entry.name) {
        kv_printf(kv_debug, "shm_open failed: %s\n", std::strerror(ENAMETOOLONG));
        return false;
    }
    OpenObject object = openShMem(name, user);
    if (!object) {
        return false;
    }
    block.file = std::move(object.file);
    return mapFragments(block, object);
}

/** Maps every fragment of some blocks at its old address, where the pointers in the list find it. */
bool attachBlocks(List& list, std::span<const ListEntry> entries) {
    const uid_t user = ::geteuid();
    for (const ListEntry& entry : entries) {
        Block block;
        block.entry = entry;
        if (!attachBlock(block, user)) {
            const std::string_view name = nameOf(entry);
            kv_printf(kv_info, "Open shared memory %.*s failed\n", static_cast<int>(name.size()),
                      name.data());
            kv_printf(kv_debug, "PersMem list initialization failed\n");
            return false;
        }
        append(list, std::move(block));
    }
    return true;
}

bool initList(List& list) {
    const auto entries = readEntries(list.object.file.get(), 0);
    kv_printf(kv_debug, "Loaded descriptor list. %d entries\n", static_cast<int>(entries.size()));
    return attachBlocks(list, entries);
}

/** Leaves everything mapped until the process ends: the model holds pointers into it. */
void forgetList() {
    const std::unique_ptr<List> list(std::exchange(loadedList, nullptr));
    (void)list->mapping.release();
    for (Block& block : list->blocks) {
        for (os::Mapping& fragment : block.fragments) {
            (void)fragment.release();
        }
    }
}

bool isPresentList(const LockedList& locked) {
    return isSameObject(loadedList->object.status, locked.object().status);
}

/** Attaches what other processes have added since the list was loaded. The list is locked. */
bool attachNews() {
    for (Block& block : loadedList->blocks) {
        if (!mapFurtherFragments(block)) {
            kv_printf(kv_debug, "PersMem list initialization failed\n");
            return false;
        }
    }
    return attachBlocks(*loadedList, readEntries(loadedList->object.file.get(), loadedList->blocks.size()));
}

void clearShMem(std::string_view name) {
    const int length = static_cast<int>(name.size());
    if (unlinkShMem(name)) {
        kv_printf(kv_debug, "Unlinked persistent memory: %.*s\n", length, name.data());
    } else {
        kv_printf(kv_debug, "shm_unlink %.*s failed: %s\n", length, name.data(), std::strerror(errno));
    }
}

void copyName(ListEntry& entry, std::string_view name) {
    if (name.size() >= sizeof entry.name) {
        (void)unlinkShMem(name);
        std::abort();  // cut, the name would be another block's
    }
    std::copy(name.begin(), name.end(), entry.name);
}

}  // namespace

LockedList::~LockedList() {
    if (object_) {
        const os::KeptErrno kept;
        (void)::flock(object_.file.get(), LOCK_UN);  // a process forked meanwhile keeps the file open
    }
}

LockedList lockList() {
    const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
    int failure = EWOULDBLOCK;
    do {
        OpenObject object = openShMem(kListName, ::geteuid());
        if (!object) {
            kv_printf(kv_debug, "PersMem main file creation failed\n");
            kv_printf(kv_debug, "PersMem list initialization failed\n");
            return {};
        }
        if (::flock(object.file.get(), LOCK_EX | LOCK_NB) == 0) {
            LockedList locked(std::move(object));
            if (isLinked(locked.object().file.get())) {  // not removed before the lock was got
                return locked;
            }
        } else if (errno == EWOULDBLOCK || errno == EINTR) {
            std::this_thread::sleep_for(kLockPause);
        } else {
            failure = errno;
        }
    } while (failure == EWOULDBLOCK && std::chrono::steady_clock::now() < deadline);
    if (failure == EWOULDBLOCK) {
        kv_printf(kv_info, "PersMem list is locked by another process\n");
    } else {
        kv_printf(kv_info, "PersMem list cannot be locked: %s\n", std::strerror(failure));
    }
    kv_printf(kv_debug, "PersMem list initialization failed\n");
    errno = EWOULDBLOCK;
    return {};
}

bool isListLoaded() {
    return loadedList != nullptr;
}

bool loadLockedList() {
    auto list = std::make_unique<List>();
    if (!openList(*list) || !initList(*list)) {
        return false;
    }
    loadedList = list.release();
    return true;
}

bool loadList() {
    if (isListLoaded()) {
        return true;
    }
    const LockedList locked = lockList();
    return locked && loadLockedList();
}

Block* findNewBlock(std::string_view name) {
    const int fd = loadedList->object.file.get();
    const bool isOutdated = !isLinked(fd) || readCount(fd) > loadedList->blocks.size();
    return isOutdated && lockForNewBlock() ? findBlock(name) : nullptr;
}

Block* findBlock(std::string_view name) {
    const uint16_t position = slotOf(*loadedList, name);
    return position == 0 ? nullptr : &loadedList->blocks[position - 1U];
}

LockedList lockForNewBlock() {
    LockedList locked = lockList();
    if (locked && loadedList != nullptr && !isPresentList(locked)) {
        forgetList();
    }
    const bool isCurrent = locked && (loadedList == nullptr ? loadLockedList() : attachNews());
    return isCurrent ? std::move(locked) : LockedList();
}

LockedList lockForGrowth(Block& block) {
    LockedList locked = lockList();
    const bool isCurrent = locked && (isPresentList(locked) ? attachNews() : mapFurtherFragments(block));
    return isCurrent ? std::move(locked) : LockedList();
}

Block* addToList(std::string_view name, Block block) {
    List& list = *loadedList;
    const auto count = static_cast<uint32_t>(list.blocks.size());
    if (!reserve(list.object.file.get(), 0, listBytes(count + 1))) {
        return nullptr;
    }
    std::atomic_ref<uint32_t> length(*list.ListLength);
    if (count >= kMaxEntries) {
        const uint32_t attempts = length;
        // Kept: the attempt counts, but never around to an empty list.
        length = std::max(attempts, attempts + 1);
        kv_printf(kv_debug, "PersMem list - running out of slots\n");
        return nullptr;
    }
    copyName(block.entry, name);
    block.entry.desc = &headOf(block.fragments.front());
    list.descList[count] = block.entry;
    length = count + 1;  // last, so that a process killed here leaves no half-made entry in the list
    return &append(list, std::move(block));
}

void clearList() {
    const LockedList locked = lockList();
    if (!locked) {
        return;
    }
    const int fd = locked.object().file.get();
    if (loadedList != nullptr && !isPresentList(locked)) {
        forgetList();
    }
    if (loadedList == nullptr) {
        (void)loadLockedList();  // blocks that cannot be attached are removed, too
    }
    for (const ListEntry& entry : readEntries(fd, 0)) {
        clearShMem(nameOf(entry));
    }
    clearShMem(kListName);
    if (loadedList != nullptr) {
        forgetList();
    }
}

}  // namespace kv::memory
