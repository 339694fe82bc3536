#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include <boost/container/small_vector.hpp>

#include "os/mapping.h"
#include "os/unique_fd.h"

// The two records below lie in shared memory and outlive their writer: their layout is a format. Other
// processes may write to them at any time, so a value is copied once, the copy is checked, and only the copy
// is used. What this process has mapped and opened it keeps in records of its own.

/** Head of a fragment. Usable bytes follow. The fragments of a block lie back to back in its object. */
struct FragmentHead {
    int32_t fileDesc;   /**< descriptor of the process that made the block, never used; first fragment only */
    uint32_t totalSize; /**< bytes of all fragments; first fragment only */
    FragmentHead* nextDesc; /**< null in the last fragment */
    uintptr_t size;         /**< bytes of this fragment with its head */
    uintptr_t address;      /**< of this head, in every process */
    uintptr_t root;         /**< first usable byte */
    uintptr_t firstFree;    /**< next byte to hand out */
};
static_assert(sizeof(FragmentHead) == 48 && offsetof(FragmentHead, nextDesc) == 8 &&
              offsetof(FragmentHead, firstFree) == 40);

/** One block in the list of blocks. */
struct ListEntry {
    char name[50]; /**< terminated, without the leading slash */
    char padding[6];
    FragmentHead* desc; /**< head of the block's first fragment */
};
static_assert(sizeof(ListEntry) == 64 && offsetof(ListEntry, desc) == 56);

namespace kv::memory {

/** Size of a fresh object; fragments are multiples of it. */
constexpr std::size_t kObjectBytes = 65536;

/** Where the entries of the list begin in its object. */
constexpr std::size_t kEntriesOffset = 512;

/** Name of the object that lists the blocks. */
constexpr const char* kListName = "kv_persMem_main";

/* ---- Shared-memory objects; names come without the leading slash ---- */

/** An open object, and what it was when it was opened. */
struct OpenObject {
    os::UniqueFd file;
    struct stat status {};

    explicit operator bool() const noexcept { return static_cast<bool>(file); }
};

inline bool isSameObject(const struct stat& one, const struct stat& other) {
    return one.st_ino == other.st_ino && one.st_dev == other.st_dev;
}

/**
 * Opens an object or makes an empty one. Refuses what is not a regular file of root or of this user: others
 * would choose the addresses that are mapped here. Empty on failure, which is logged unless an object exists
 * (EEXIST) that O_EXCL among the further flags forbids.
 *
 * @param user  the effective user, given so that opening many objects asks for it once
 */
OpenObject openShMem(std::string_view name, uid_t user, int furtherFlags = 0);

/**
 * Reserves the memory of a part of an object and grows the object to hold it. Without that, a first write to
 * memory that the file system has not got ends the process (SIGBUS). @return success; a failure is logged,
 * and its reason is in errno
 */
bool reserve(int fd, uint64_t begin, uint64_t end);

/** Removes an object's name. @return success; the reason of a failure is in errno */
bool unlinkShMem(std::string_view name);

/** Removes the name of an object that was made just now, unless another object has it by now. */
void unlinkMade(std::string_view name, int fd);

/** Maps the list's object to the size that a full list has, since it cannot move later. Empty on failure,
 * which is logged. */
os::Mapping mapList(int fd);

/** The list's bytes in its object while it holds at most this many blocks. */
uint64_t listBytes(uint32_t count);

/** One block as this process has it. Its sizes, addresses and descriptor are the process's own. */
struct Block {
    ListEntry entry{};
    os::UniqueFd file;
    uint32_t totalSize = 0;
    boost::container::small_vector<os::Mapping, 1> fragments; /**< in the order of the object */
};

/** The head of a mapped fragment. */
inline FragmentHead& headOf(const os::Mapping& fragment) {
    return *static_cast<FragmentHead*>(fragment.get());
}

/** Opens a new object with one fragment, without an entry. Empty on failure, with the reason in errno, which
 * is logged except for EEXIST; no object is left. */
std::optional<Block> createShMem(std::string_view name, int furtherFlags = 0);

/** Adds a fragment with some bytes in use to a block. @return it; null on failure, which is logged */
os::Mapping* addFragment(Block& block, uint64_t lengthBytes, uint32_t usedBytes);

/** Maps all fragments of an open block at their addresses. @return success; a failure is logged */
bool mapFragments(Block& block, const OpenObject& object);

/**
 * Maps what another process has added to a block since. @return success, also where there is nothing; a
 * failure is logged
 */
bool mapFurtherFragments(Block& block);

/* ---- The list of blocks; failures are logged ---- */

/** The list's object, locked against other processes. */
class LockedList {
 public:
    LockedList() noexcept = default;
    explicit LockedList(OpenObject object) noexcept : object_(std::move(object)) {}
    LockedList(LockedList&&) noexcept = default;
    LockedList& operator=(LockedList&&) = delete;
    ~LockedList();

    explicit operator bool() const noexcept { return static_cast<bool>(object_); }
    [[nodiscard]] const OpenObject& object() const noexcept { return object_; }

 private:
    OpenObject object_;
};

/**
 * Locks the list, for which it waits a second at most. On failure errno is EWOULDBLOCK where the list's
 * object was opened but not locked.
 */
LockedList lockList();

bool isListLoaded();

/** Attaches all blocks unless they are attached. */
bool loadList();

/** The same while the list is locked and not loaded. */
bool loadLockedList();

/** The block of a name in the loaded list. Null where the name is new. */
Block* findBlock(std::string_view name);

/** The same, after a look at what other processes have added. */
Block* findNewBlock(std::string_view name);

/**
 * Locks the list and attaches what other processes have added. Where another process has removed the list,
 * the present one is loaded in its place and all blocks here are forgotten.
 */
LockedList lockForNewBlock();

/**
 * Locks the list, so that no other process uses the addresses of new memory too, and attaches what others
 * have added: to a block of a removed list, which its processes still use, at least the block's fragments.
 * Forgets no blocks.
 */
LockedList lockForGrowth(Block& block);

/** Adds a new block to the locked and loaded list. Aborts for a name of 50 characters or more. Null on
 * failure. */
Block* addToList(std::string_view name, Block block);

/** Unlinks all blocks that the list names, and the list; the list is then not loaded. */
void clearList();

}  // namespace kv::memory
