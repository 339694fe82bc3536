#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include <kv/diagnostics.h>

#include "memory/kv_memory_persistent_internal.h"

namespace kv::memory {

namespace {

constexpr uint32_t kMaxEntries = 1023;
constexpr std::size_t kEntriesOffset = 512;
constexpr uint32_t kEntriesInFreshObject = (kObjectBytes - kEntriesOffset) / sizeof(ListEntry);

/** Not noexcept, so that the table keeps the hashes of its names and compares these first. */
struct NameHash {
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
};

/** The list as this process holds it. */
struct List {
    SharedObject object;
    uint32_t* ListLength = nullptr; /**< number of entries, in the object */
    ListEntry* descList = nullptr;  /**< first entry, in the object */
    std::vector<os::UniqueFd> files;
    std::unordered_map<std::string_view, FragmentHead*, NameHash> index; /**< by the names in the object */
};

/** Null while the list is not loaded. Not destroyed at exit: exit handlers use persistent memory too. */
List* loadedList = nullptr;

/** What has been opened and mapped while the list loads; all of it goes again unless the load succeeds. */
struct Attachment {
    std::vector<os::UniqueFd> files;
    std::vector<Fragment> fragments;
};

/** The entry's name; as long as its field where the terminator is missing. */
std::string_view nameOf(const ListEntry& entry) {
    return {entry.name, ::strnlen(entry.name, sizeof entry.name)};
}

/** The entries that the object holds; a full list may count further attempts. */
std::span<ListEntry> entries(const List& list) {
    return {list.descList, std::min(*list.ListLength, kMaxEntries)};
}

/** Lets the object hold a number of entries. The reason of a failure is in errno. */
bool growToHold(const List& list, uint32_t count) {
    const int fd = list.object.file.get();
    const auto grownBytes = static_cast<off_t>(grownListBytes());
    return count <= kEntriesInFreshObject || ::lseek(fd, 0, SEEK_END) >= grownBytes ||
           ::ftruncate(fd, grownBytes) == 0;
}

bool openList(List& list) {
    list.object = createShMem(kListName, Content::List);
    if (list.object) {
        auto* bytes = static_cast<std::byte*>(list.object.mapping.get());
        list.ListLength = reinterpret_cast<uint32_t*>(bytes);
        list.descList = reinterpret_cast<ListEntry*>(bytes + kEntriesOffset);
        if (growToHold(list, *list.ListLength)) {
            return true;
        }
        kv_printf(kv_debug, "ftruncate failed: %s\n", std::strerror(errno));
    }
    kv_printf(kv_debug, "PersMem main file creation failed\n");
    kv_printf(kv_debug, "PersMem list initialization failed\n");
    return false;
}

/** Maps the fragments of a block. @return the sum of their sizes; 0 on failure */
uint32_t mapFragments(int fd, const FragmentHead* first, std::vector<Fragment>& fragments) {
    auto fragment = mapFragment(fd, 0, first);
    if (!fragment) {
        kv_printf(kv_debug, "Open main fragment failed\n");
        return 0;
    }
    uint32_t offset = 0;
    for (;;) {
        offset += static_cast<uint32_t>(fragment->head.size);
        const FragmentHead* next = fragment->head.nextDesc;
        fragments.push_back(std::move(*fragment));
        if (next == nullptr) {
            return offset;
        }
        fragment = mapFragment(fd, offset, next);
        if (!fragment) {
            kv_printf(kv_debug, "Open fragment at offset 0x%X failed\n", offset);
            return 0;
        }
    }
}

bool attachBlock(const ListEntry& entry, Attachment& attachment) {
    const std::string name(nameOf(entry));
    kv_printf(kv_debug, "Open shMem /%s\n", name.c_str());
    os::UniqueFd file;
    if (name.size() == sizeof entry.name) {
        errno = ENAMETOOLONG;
    } else {
        file = openShMem(name);
    }
    if (!file) {
        kv_printf(kv_debug, "shm_open failed: %s\n", std::strerror(errno));
        return false;
    }
    const std::size_t first = attachment.fragments.size();
    const uint32_t totalSize = mapFragments(file.get(), entry.desc, attachment.fragments);
    if (totalSize == 0) {
        return false;
    }
    // A size that is too small was left by a process that was killed while the block grew. A head that is
    // right already is not touched, which would cost a page fault.
    const FragmentHead& head = attachment.fragments[first].head;
    if (head.fileDesc != file.get() || head.totalSize != totalSize) {
        entry.desc->fileDesc = file.get();
        entry.desc->totalSize = totalSize;
    }
    attachment.files.push_back(std::move(file));
    return true;
}

/** Maps every fragment of every block at its old address, where the pointers in the list find it. */
bool initList(List& list) {
    const auto listed = entries(list);
    kv_printf(kv_debug, "Loaded descriptor list. %d entries\n", static_cast<int>(listed.size()));
    Attachment attachment;
    attachment.files.reserve(kMaxEntries);
    attachment.fragments.reserve(listed.size());
    list.index.reserve(kMaxEntries);
    for (const ListEntry& entry : listed) {
        const std::string_view name = nameOf(entry);
        if (!attachBlock(entry, attachment)) {
            kv_printf(kv_info, "Open shared memory %s failed\n", std::string(name).c_str());
            kv_printf(kv_debug, "PersMem list initialization failed\n");
            return false;
        }
        list.index.emplace(name, entry.desc);  // the first of two with one name stays
    }
    list.files = std::move(attachment.files);
    for (Fragment& fragment : attachment.fragments) {
        (void)fragment.mapping.release();  // mapped until the process ends: the model holds pointers into it
    }
    return true;
}

void copyName(ListEntry& entry, const std::string& name) {
    if (name.size() >= sizeof entry.name) {
        std::abort();  // cut, the name would be another block's
    }
    std::memcpy(entry.name, name.c_str(), name.size() + 1);
}

}  // namespace

bool loadList() {
    if (loadedList != nullptr) {
        return true;
    }
    auto list = std::make_unique<List>();
    if (!openList(*list) || !initList(*list)) {
        return false;
    }
    loadedList = list.release();
    return true;
}

FragmentHead* getMemDesc(const char* name) {
    if (!loadList()) {
        return nullptr;
    }
    const auto found = loadedList->index.find(name);
    return found == loadedList->index.end() ? nullptr : found->second;
}

bool addToList(const std::string& name, FragmentHead* desc, os::UniqueFd file) {
    List& list = *loadedList;
    std::atomic_ref<uint32_t> length(*list.ListLength);
    const uint32_t count = length;
    if (count >= kMaxEntries) {
        length = std::max(count, count + 1);  // kept: the attempt counts, but never around to an empty list
        kv_printf(kv_debug, "PersMem list - running out of slots\n");
        return false;
    }
    if (!growToHold(list, count + 1)) {
        kv_printf(kv_debug, "ftruncate failed: %s\n", std::strerror(errno));
        return false;
    }
    ListEntry& entry = list.descList[count];
    copyName(entry, name);
    entry.desc = desc;
    list.index.emplace(nameOf(entry), desc);
    list.files.push_back(std::move(file));  // has room
    length = count + 1;  // last, so that a process killed here leaves no half-made entry in the list
    return true;
}

void clearList() {
    std::unique_ptr<List> list(std::exchange(loadedList, nullptr));
    if (list == nullptr) {
        list = std::make_unique<List>();
        if (!openList(*list)) {
            return;
        }
        (void)initList(*list);  // blocks that cannot be attached are removed all the same
    }
    for (const ListEntry& entry : entries(*list)) {
        clearShMem(std::string(nameOf(entry)));
    }
    clearShMem(kListName);
}

}  // namespace kv::memory
