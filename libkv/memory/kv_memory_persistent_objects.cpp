#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include <kv/diagnostics.h>

#include "memory/kv_memory_persistent_internal.h"

namespace kv::memory {

namespace {

using os::pointerTo;

constexpr mode_t kObjectMode = 0777;

constexpr uintptr_t kListHint = 0x7700000000;
constexpr uintptr_t kListRoom = 0x100000;
constexpr uint32_t kEntriesInFreshObject = (kObjectBytes - kEntriesOffset) / sizeof(ListEntry);

/** Reserved in one call: a signal makes a call start again from its beginning. */
constexpr uint64_t kReserveBytes = 16 * kObjectBytes;

/** A range of addresses that processes leave free; fragments are put into it one behind the other. */
struct AddressRange {
    uintptr_t next;
    uintptr_t end;
};

// Fragments return to their addresses in processes that have mapped other things before, so they keep clear
// of these. The second range serves where the first is taken, as it is by the shadow of a sanitizer.
AddressRange fragmentRanges[] = {{kListHint + kListRoom, 0x8000000000}, {0x177000000000, 0x178000000000}};

void noteMappedFragment(uintptr_t address, std::size_t lengthBytes) {
    for (AddressRange& range : fragmentRanges) {
        if (address >= range.next && address < range.end) {
            range.next = address + lengthBytes;
        }
    }
}

os::Mapping mapShared(int fd, std::size_t lengthBytes, off_t offset, uintptr_t hint) {
    return {::mmap(pointerTo(hint), lengthBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset),
            lengthBytes};
}

uintptr_t pageBytes() {
    return static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
}

/** "/" and a name, as shm_open() takes it and as the file that it opens. */
class ObjectPath {
 public:
    explicit ObjectPath(std::string_view name) {
        kFolder.copy(text_.data(), kFolder.size());
        name.copy(text_.data() + kFolder.size(), NAME_MAX + 1);  // one too long still is, when cut
    }
    [[nodiscard]] const char* c_str() const { return file() + kFolder.size() - 1; }
    [[nodiscard]] const char* file() const { return text_.data(); }

 private:
    static constexpr std::string_view kFolder = "/dev/shm/";
    std::array<char, kFolder.size() + NAME_MAX + 2> text_{};
};

bool isTrusted(const struct stat& status, uid_t user) {
    return S_ISREG(status.st_mode) && (status.st_uid == 0 || status.st_uid == user);
}

/** Maps a new fragment where nothing is mapped. Empty on failure, with the reason in errno. */
os::Mapping mapNewFragment(int fd, std::size_t lengthBytes, off_t offset) {
    os::Mapping mapping;
    for (const AddressRange& range : fragmentRanges) {
        mapping = mapShared(fd, lengthBytes, offset, range.next);
        if (mapping.get() == pointerTo(range.next)) {
            break;
        }
    }
    noteMappedFragment(reinterpret_cast<uintptr_t>(mapping.get()), lengthBytes);
    return mapping;
}

/** Writes the head of a fragment that has just been mapped. */
void makeHead(const os::Mapping& fragment, uint32_t usedBytes) {
    const auto address = reinterpret_cast<uintptr_t>(fragment.get());
    const uintptr_t root = address + sizeof(FragmentHead);
    headOf(fragment) = {.fileDesc = 0,
                        .totalSize = 0,
                        .nextDesc = nullptr,
                        .size = fragment.lengthBytes(),
                        .address = address,
                        .root = root,
                        .firstFree = root + usedBytes};
}

bool isSound(const FragmentHead& head, const FragmentHead* expected, uint64_t offset, uint64_t objectBytes) {
    return head.address == reinterpret_cast<uintptr_t>(expected) && head.address != 0 &&
           head.address % pageBytes() == 0 && head.size != 0 && head.size % pageBytes() == 0 &&
           offset <= objectBytes && head.size <= objectBytes - offset &&
           head.size <= std::numeric_limits<uint32_t>::max() - offset &&
           head.root == head.address + sizeof(FragmentHead) && head.firstFree >= head.root;
}

/**
 * Maps a block's next fragment where it was mapped when it was made, which must be @p expected. Nothing that
 * is mapped there already is touched. @return the head as it was found; empty on failure, which is logged
 */
std::optional<FragmentHead> mapFragment(Block& block, const FragmentHead* expected, off_t objectBytes) {
    const uint32_t offset = block.totalSize;
    FragmentHead head;
    errno = EIO;  // what a short read means here
    if (::pread(block.file.get(), &head, sizeof head, offset) != sizeof head) {
        kv_printf(kv_debug, "mmap 1 failed: %s\n", std::strerror(errno));
        return std::nullopt;
    }
    if (!isSound(head, expected, offset, static_cast<uint64_t>(objectBytes))) {
        kv_printf(kv_debug, "mmap 2 failed: %s\n", std::strerror(EINVAL));
        return std::nullopt;
    }

    void* address = ::mmap(pointerTo(head.address), head.size, PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_FIXED_NOREPLACE, block.file.get(), offset);
    if (address == MAP_FAILED && errno != EEXIST) {
        kv_printf(kv_debug, "mmap 2 failed: %s\n", std::strerror(errno));
        return std::nullopt;
    }
    os::Mapping mapping(address, head.size);  // empty where the address is occupied
    const auto got = reinterpret_cast<uintptr_t>(mapping.get());
    if (got != head.address) {
        kv_printf(kv_debug, "mmap 2 failed: got 0x%16llX, expected 0x%16llX\n",
                  static_cast<unsigned long long>(got), static_cast<unsigned long long>(head.address));
        return std::nullopt;
    }
    noteMappedFragment(head.address, head.size);
    block.fragments.push_back(std::move(mapping));
    block.totalSize += static_cast<uint32_t>(head.size);
    return head;
}

/** Maps the fragments from one on that stands behind those mapped. @return success */
bool mapChain(Block& block, const FragmentHead* next, off_t objectBytes) {
    while (next != nullptr) {
        const uint32_t offset = block.totalSize;
        const auto head = mapFragment(block, next, objectBytes);
        if (!head) {
            kv_printf(kv_debug, "Open fragment at offset 0x%X failed\n", offset);
            return false;
        }
        next = head->nextDesc;
    }
    return true;
}

}  // namespace

OpenObject openShMem(std::string_view name, uid_t user, int furtherFlags) {
    OpenObject object;
    object.file.reset(::shm_open(ObjectPath(name).c_str(), O_RDWR | O_CREAT | furtherFlags, kObjectMode));
    if (object.file.get() == 0) {
        // Kept: descriptor 0 counts as a failure. It stays taken, so that the next call gets another.
        (void)object.file.release();
        errno = EBADF;
        return {};
    }
    if (object && ::fstat(object.file.get(), &object.status) == 0 && isTrusted(object.status, user)) {
        return object;
    }
    if (object) {
        errno = EACCES;
    }
    if (errno != EEXIST) {
        kv_printf(kv_debug, "shm_open failed: %s\n", std::strerror(errno));
    }
    return {};
}

bool reserve(int fd, uint64_t begin, uint64_t end) {
    const off_t oldBytes = ::lseek(fd, 0, SEEK_END);
    int failure = end > std::numeric_limits<uint32_t>::max() ? EFBIG : 0;  // totals have 32 bits
    while (failure == 0 && begin < end) {
        const uint64_t bytes = std::min(end - begin, kReserveBytes);
        failure = ::posix_fallocate(fd, static_cast<off_t>(begin), static_cast<off_t>(bytes));
        if (failure == 0) {
            begin += bytes;
        } else if (failure == EINTR) {
            failure = 0;
        } else {
            (void)!::ftruncate(fd, oldBytes);  // gives back what was got
        }
    }
    if (failure != 0) {
        kv_printf(kv_debug, "ftruncate failed: %s\n", std::strerror(failure));
        errno = failure;  // posix_fallocate() leaves it alone
    }
    return failure == 0;
}

bool unlinkShMem(std::string_view name) {
    return ::shm_unlink(ObjectPath(name).c_str()) == 0;
}

void unlinkMade(std::string_view name, int fd) {
    const os::KeptErrno kept;
    struct stat made {};
    struct stat named {};
    if (::fstat(fd, &made) == 0 && ::lstat(ObjectPath(name).file(), &named) == 0 &&
        isSameObject(made, named)) {
        (void)unlinkShMem(name);
    }
}

uint64_t listBytes(uint32_t count) {
    return count <= kEntriesInFreshObject ? kObjectBytes : kObjectBytes + pageBytes();
}

os::Mapping mapList(int fd) {
    os::Mapping mapping = mapShared(fd, listBytes(std::numeric_limits<uint32_t>::max()), 0, kListHint);
    if (!mapping) {
        kv_printf(kv_debug, "mmap failed: %s\n", std::strerror(errno));
    }
    return mapping;
}

std::optional<Block> createShMem(std::string_view name, int furtherFlags) {
    OpenObject object = openShMem(name, ::geteuid(), furtherFlags);
    if (!object) {
        return std::nullopt;
    }
    if (reserve(object.file.get(), 0, kObjectBytes)) {
        if (os::Mapping mapping = mapNewFragment(object.file.get(), kObjectBytes, 0)) {
            makeHead(mapping, 0);
            headOf(mapping).fileDesc = object.file.get();
            headOf(mapping).totalSize = kObjectBytes;
            Block block;
            block.file = std::move(object.file);
            block.totalSize = kObjectBytes;
            block.fragments.push_back(std::move(mapping));
            return block;
        }
        kv_printf(kv_debug, "mmap failed: %s\n", std::strerror(errno));
    }
    unlinkMade(name, object.file.get());
    return std::nullopt;
}

os::Mapping* addFragment(Block& block, uint64_t lengthBytes, uint32_t usedBytes) {
    block.fragments.reserve(block.fragments.size() + 1);  // once the fragment is linked, nothing may fail
    const uint64_t newTotal = block.totalSize + lengthBytes;
    if (!reserve(block.file.get(), block.totalSize, newTotal)) {
        return nullptr;
    }
    os::Mapping mapping = mapNewFragment(block.file.get(), lengthBytes, block.totalSize);
    if (!mapping) {
        kv_printf(kv_debug, "mmaping additional memory failed: %s\n", std::strerror(errno));
        (void)!::ftruncate(block.file.get(), block.totalSize);
        return nullptr;
    }
    makeHead(mapping, usedBytes);
    // After its head, so that a process killed here leaves no half-made one.
    std::atomic_ref(headOf(block.fragments.back()).nextDesc) = &headOf(mapping);
    block.totalSize = static_cast<uint32_t>(newTotal);
    headOf(block.fragments.front()).totalSize = block.totalSize;
    block.fragments.push_back(std::move(mapping));
    return &block.fragments.back();
}

bool mapFragments(Block& block, const OpenObject& object) {
    const auto first = mapFragment(block, block.entry.desc, object.status.st_size);
    if (!first) {
        kv_printf(kv_debug, "Open main fragment failed\n");
        return false;
    }
    if (!mapChain(block, first->nextDesc, object.status.st_size)) {
        return false;
    }
    if (first->totalSize != block.totalSize) {  // left by a process that was killed while the block grew
        headOf(block.fragments.front()).totalSize = block.totalSize;
    }
    return true;
}

bool mapFurtherFragments(Block& block) {
    const FragmentHead* next = std::atomic_ref(headOf(block.fragments.back()).nextDesc);
    return next == nullptr || mapChain(block, next, ::lseek(block.file.get(), 0, SEEK_END));
}

}  // namespace kv::memory
