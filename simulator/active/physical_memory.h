#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "kvsim/description.h"
#include "os/mapping.h"
#include "os/unique_fd.h"

namespace kvsim {

/** The physical memory that boards reach by DMA: the buffers that programs have got. */
class PhysicalMemory {
 public:
    virtual ~PhysicalMemory() = default;

    /** Adds a buffer whose content is a file's. It overlaps no other. */
    void add(std::uint64_t address, std::uint64_t sizeBytes, kv::os::UniqueFd file);
    /** What a board has mapped of it stays valid for the board. */
    void remove(std::uint64_t address);

    /** The lowest address in a range from where so many bytes belong to no buffer. */
    [[nodiscard]] std::optional<std::uint64_t> firstGap(const MemoryRange& range,
                                                        std::uint64_t sizeBytes) const;

    /** A buffer as a board sees it. */
    class Span {
     public:
        Span(std::shared_ptr<kv::os::Mapping> mapping, std::byte* first)
            : mapping_(std::move(mapping)), first_(first) {}
        [[nodiscard]] std::byte* data() const { return first_; }
        explicit operator bool() const { return first_ != nullptr; }

     private:
        std::shared_ptr<kv::os::Mapping> mapping_;
        std::byte* first_;
    };

    /** Empty where the range does not lie in one buffer: a board's access to it goes nowhere. */
    [[nodiscard]] virtual Span at(std::uint64_t address, std::uint64_t sizeBytes);

 private:
    struct Buffer {
        std::uint64_t sizeBytes;
        kv::os::UniqueFd file;
        std::shared_ptr<kv::os::Mapping> mapping = {};  // made by the first access
    };
    std::map<std::uint64_t, Buffer> buffers_;
};

}  // namespace kvsim
