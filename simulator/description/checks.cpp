#include "description/checks.h"

#include "layout/format.h"

namespace kvsim {

void refuse(const std::string& reason, Position position) {
    throw DescriptionError(reason, position);
}

std::string hex(std::uint64_t number) {
    return format("0x%llx", static_cast<unsigned long long>(number));
}

bool isFileName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

void requireFileName(const std::string& name, const char* what, Position position) {
    if (!isFileName(name)) {
        refuse(format("\"%s\" can't be the name of %s", name.c_str(), what), position);
    }
}

void requireRange(const std::string& name, std::uint64_t address, std::uint64_t sizeBytes, std::uint64_t end,
                  Position position) {
    if (address == 0 || address >= end || sizeBytes > end - address) {
        refuse(format("%s at %s, size %s, does not lie between 1 and %s", name.c_str(), hex(address).c_str(),
                      hex(sizeBytes).c_str(), hex(end).c_str()),
               position);
    }
}

void requireRegisters(const std::map<std::uint32_t, std::uint32_t>& registers, const char* holder,
                      std::uint64_t sizeBytes, Position position) {
    for (const auto& [offset, value] : registers) {
        if (offset % 4 != 0 || offset >= sizeBytes) {
            refuse(format("the register offset %s is not a multiple of 4 below the %s's size %s",
                          hex(offset).c_str(), holder, hex(sizeBytes).c_str()),
                   position);
        }
    }
}

void AddressRanges::add(const std::string& name, std::uint64_t address, std::uint64_t sizeBytes,
                        Position position) {
    const std::uint64_t end = address + sizeBytes;
    const auto next = ranges_.lower_bound(end);
    if (next != ranges_.begin()) {
        const auto& [otherAddress, other] = *std::prev(next);
        if (other.end > address) {
            refuse(format("%s at %s overlaps %s at %s", name.c_str(), hex(address).c_str(),
                          other.name.c_str(), hex(otherAddress).c_str()),
                   position);
        }
    }
    ranges_.emplace(address, Range{end, name});
}

}  // namespace kvsim
