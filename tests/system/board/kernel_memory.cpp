#include "board/kernel_memory.h"

#include <filesystem>
#include <fstream>
#include <sys/mman.h>

#include "os/unique_fd.h"

namespace {

constexpr const char* kBufferClass = "/sys/class/u-dma-buf";

std::uint64_t readNumber(const std::filesystem::path& file, int base) {
    std::string text;
    std::ifstream(file) >> text;
    return std::strtoull(text.c_str(), nullptr, base);
}

}  // namespace

KernelMemory::Buffer KernelMemory::find(std::uint64_t address, std::uint64_t sizeBytes) {
    std::error_code none;  // no driver, no buffers
    for (const auto& device : std::filesystem::directory_iterator(kBufferClass, none)) {
        Buffer buffer{.address = readNumber(device.path() / "phys_addr", 16),
                      .sizeBytes = readNumber(device.path() / "size", 10)};
        if (!buffer.holds(address, sizeBytes)) {
            continue;
        }
        // As programs open it, so that all see the memory alike.
        const kv::os::UniqueFd file =
            kv::os::openFile("/dev/" + device.path().filename().string(), O_RDWR | O_SYNC);
        buffer.mapping = std::make_shared<kv::os::Mapping>(
            ::mmap(nullptr, buffer.sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0),
            buffer.sizeBytes);
        return buffer;
    }
    return {};
}

kvsim::PhysicalMemory::Span KernelMemory::at(std::uint64_t address, std::uint64_t sizeBytes) {
    if (!buffer_.mapping || !buffer_.holds(address, sizeBytes)) {
        buffer_ = find(address, sizeBytes);
    }
    auto* const first = buffer_.mapping ? static_cast<std::byte*>(buffer_.mapping->get()) : nullptr;
    return {buffer_.mapping, first == nullptr ? nullptr : first + (address - buffer_.address)};
}
