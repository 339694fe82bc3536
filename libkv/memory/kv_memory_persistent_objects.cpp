#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kv/diagnostics.h>

#include "memory/kv_memory_persistent_internal.h"

namespace kv::memory {

namespace {

using os::pointerTo;

constexpr mode_t kObjectMode = 0777;

constexpr uintptr_t kListHint = 0x7700000000;
constexpr uintptr_t kListRoom = 0x100000;

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

std::string pathOf(const std::string& name) {
    return "/" + name;
}

/** Never shrinks: an object that others have grown keeps what is behind its first 64 KiB. */
bool growToObjectSize(int fd) {
    const off_t present = ::lseek(fd, 0, SEEK_END);
    return present >= off_t{kObjectBytes} || ::ftruncate(fd, kObjectBytes) == 0;
}

bool isSound(const FragmentHead& head, const FragmentHead* expected, uint32_t offset, off_t objectBytes) {
    const auto available = static_cast<uintptr_t>(objectBytes) - offset;
    return head.address == reinterpret_cast<uintptr_t>(expected) && head.address != 0 &&
           head.address % pageBytes() == 0 && head.size != 0 && head.size % pageBytes() == 0 &&
           head.size <= available && head.size <= std::numeric_limits<uint32_t>::max() - offset &&
           head.root == head.address + sizeof(FragmentHead) && head.firstFree >= head.root;
}

}  // namespace

std::size_t grownListBytes() {
    return kObjectBytes + pageBytes();
}

os::UniqueFd openShMem(const std::string& name) {
    return os::UniqueFd(::shm_open(pathOf(name).c_str(), O_RDWR | O_CREAT, kObjectMode));
}

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

SharedObject createShMem(const std::string& name, Content content) {
    os::UniqueFd file = openShMem(name);
    if (!file) {
        kv_printf(kv_debug, "shm_open failed: %s\n", std::strerror(errno));
        return {};
    }
    if (file.get() == 0) {
        // Kept: descriptor 0 counts as a failure. It stays taken, so that the next call gets another.
        (void)file.release();
        return {};
    }
    if (!growToObjectSize(file.get())) {
        kv_printf(kv_debug, "ftruncate failed: %s\n", std::strerror(errno));
        return {};
    }
    os::Mapping mapping = content == Content::List ? mapShared(file.get(), grownListBytes(), 0, kListHint)
                                                   : mapNewFragment(file.get(), kObjectBytes, 0);
    if (!mapping) {
        kv_printf(kv_debug, "mmap failed: %s\n", std::strerror(errno));
        return {};
    }
    return {std::move(file), std::move(mapping)};
}

std::optional<Fragment> mapFragment(int fd, uint32_t offset, const FragmentHead* expected) {
    FragmentHead head;
    errno = EIO;  // what a short read means here
    if (::pread(fd, &head, sizeof head, offset) != sizeof head) {
        kv_printf(kv_debug, "mmap 1 failed: %s\n", std::strerror(errno));
        return std::nullopt;
    }
    if (!isSound(head, expected, offset, ::lseek(fd, 0, SEEK_END))) {
        kv_printf(kv_debug, "mmap 2 failed: %s\n", std::strerror(EINVAL));
        return std::nullopt;
    }

    void* address = ::mmap(pointerTo(head.address), head.size, PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_FIXED_NOREPLACE, fd, offset);
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
    return Fragment{head, std::move(mapping)};
}

void clearShMem(const std::string& name) {
    if (::shm_unlink(pathOf(name).c_str()) == 0) {
        kv_printf(kv_debug, "Unlinked persistent memory: %s\n", name.c_str());
    } else {
        kv_printf(kv_debug, "shm_unlink %s failed: %s\n", name.c_str(), std::strerror(errno));
    }
}

}  // namespace kv::memory
