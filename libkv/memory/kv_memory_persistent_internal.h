#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "os/mapping.h"
#include "os/unique_fd.h"

// The two records below lie in shared memory and outlive their writer: their layout is a format.

/** Head of a fragment. Usable bytes follow. The fragments of a block lie back to back in its object. */
struct FragmentHead {
    int32_t fileDesc;       /**< this process's descriptor of the block's object; first fragment only */
    uint32_t totalSize;     /**< bytes of all fragments; first fragment only */
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

/** Name of the object that lists the blocks. */
constexpr const char* kListName = "kv_persMem_main";

/* ---- Shared-memory objects; names come without the leading slash ---- */

/** An open and mapped object. */
struct SharedObject {
    os::UniqueFd file;
    os::Mapping mapping;

    explicit operator bool() const noexcept { return static_cast<bool>(mapping); }
};

/** What an object holds: the list of blocks, or the first fragment of a block. */
enum class Content { List, Fragment };

/** Size of the list's object once it holds more blocks than fit in kObjectBytes. */
std::size_t grownListBytes();

/**
 * Opens an object, makes it where there is none, and grows it to kObjectBytes. The list is mapped to its
 * grown size at once, since it cannot move later. Empty on failure, which is logged.
 */
SharedObject createShMem(const std::string& name, Content content);

/** Opens an object or makes an empty one. The result is empty on failure, with the reason in errno. */
os::UniqueFd openShMem(const std::string& name);

/** Maps a new fragment where nothing is mapped. Empty on failure, with the reason in errno. */
os::Mapping mapNewFragment(int fd, std::size_t lengthBytes, off_t offset);

/** A fragment at its old address, and its head as it was found. */
struct Fragment {
    FragmentHead head;
    os::Mapping mapping;
};

/**
 * Maps the fragment at an offset of a block's object where it was mapped when it was made, which must be @p
 * expected. Nothing that is mapped there already is touched. Empty on failure, which is logged.
 */
std::optional<Fragment> mapFragment(int fd, uint32_t offset, const FragmentHead* expected);

/** Unlinks an object and logs how it went. */
void clearShMem(const std::string& name);

/* ---- The list of blocks; failures are logged ---- */

/** Attaches all blocks unless they are attached. */
bool loadList();

/** The head of a block's first fragment; loads the list first. Null where that fails or the name is new. */
FragmentHead* getMemDesc(const char* name);

/** Adds a block to the loaded list, which takes its descriptor. Aborts for 50 characters or more. */
bool addToList(const std::string& name, FragmentHead* desc, os::UniqueFd file);

/** Unlinks all blocks that the list names, and the list; the list is then not loaded. */
void clearList();

}  // namespace kv::memory
