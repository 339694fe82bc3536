#include "active/physical_memory.h"

#include <algorithm>
#include <sys/mman.h>
#include <sys/stat.h>

namespace kvsim {

namespace {

std::uint64_t sizeOf(const kv::os::UniqueFd& file) {
    struct stat status {};
    return ::fstat(file.get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

void PhysicalMemory::add(std::uint64_t address, std::uint64_t sizeBytes, kv::os::UniqueFd file) {
    buffers_.insert_or_assign(address, Buffer{.sizeBytes = sizeBytes, .file = std::move(file)});
}

void PhysicalMemory::remove(std::uint64_t address) {
    buffers_.erase(address);
}

std::optional<std::uint64_t> PhysicalMemory::firstGap(const MemoryRange& range,
                                                      std::uint64_t sizeBytes) const {
    const std::uint64_t end = range.address + range.sizeBytes;
    std::uint64_t gap = range.address;
    for (const auto& [start, buffer] : buffers_) {
        if (start >= gap && start - gap >= sizeBytes) {
            break;
        }
        gap = std::max(gap, start + buffer.sizeBytes);
    }
    return gap <= end && sizeBytes <= end - gap ? std::optional(gap) : std::nullopt;
}

PhysicalMemory::Span PhysicalMemory::at(std::uint64_t address, std::uint64_t sizeBytes) {
    auto next = buffers_.upper_bound(address);
    if (next == buffers_.begin()) {
        return {nullptr, nullptr};
    }
    auto& [start, buffer] = *std::prev(next);
    const std::uint64_t offset = address - start;
    // The file's own length counts too: where a program has cut it, its mapping ends in a bus error.
    const std::uint64_t length = std::min(buffer.sizeBytes, sizeOf(buffer.file));
    if (offset > length || sizeBytes > length - offset) {
        return {nullptr, nullptr};
    }
    if (!buffer.mapping) {
        buffer.mapping = std::make_shared<kv::os::Mapping>(
            ::mmap(nullptr, buffer.sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.file.get(), 0),
            buffer.sizeBytes);
    }
    auto* const first = static_cast<std::byte*>(buffer.mapping->get());
    return {buffer.mapping, first == nullptr ? nullptr : first + offset};
}

}  // namespace kvsim
