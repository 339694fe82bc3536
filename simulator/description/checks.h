#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "kvsim/description.h"

namespace kvsim {

/** The first address that no machine has. */
inline constexpr std::uint64_t kMaxAddress = std::uint64_t{1} << 52;

[[noreturn]] void refuse(const std::string& reason, Position position);

/** "0x1f", as reasons show addresses and sizes. */
std::string hex(std::uint64_t number);

/** Whether a name can be one folder or file of a path. */
bool isFileName(const std::string& name);

/** Refuses a name that can't be one folder or file of a path. `what` it names goes into the reason. */
void requireFileName(const std::string& name, const char* what, Position position);

/** Refuses a range that begins at 0, where nothing is, or ends behind an end. */
void requireRange(const std::string& name, std::uint64_t address, std::uint64_t sizeBytes, std::uint64_t end,
                  Position position);

/** Refuses 32-bit words that do not lie in what holds them, such as "BAR". */
void requireRegisters(const std::map<std::uint32_t, std::uint32_t>& registers, const char* holder,
                      std::uint64_t sizeBytes, Position position);

/** What lies where in an address space. */
class AddressRanges {
 public:
    /** Refuses what overlaps something that was added before. */
    void add(const std::string& name, std::uint64_t address, std::uint64_t sizeBytes, Position position);

 private:
    struct Range {
        std::uint64_t end;
        std::string name;
    };
    std::map<std::uint64_t, Range> ranges_;
};

/** Refuses devices and memory of the chip that can't be, or that lie where memory is taken already. */
void checkSoc(const MachineDescription& description, AddressRanges memory);

/** Refuses GPIO chips that can't be. */
void checkGpio(const std::vector<GpioChip>& chips);

}  // namespace kvsim
