#include <algorithm>
#include <set>

#include "description/checks.h"
#include "description/mistakes.h"
#include "layout/format.h"

namespace kvsim {

namespace {

constexpr std::size_t kMaxNameLength = 31;  // of the kernel
constexpr const char* kChipPrefix = "gpiochip";

void requireGpioName(const std::string& name, const char* what, Position position) {
    if (name.size() > kMaxNameLength || name.find('\n') != std::string::npos) {
        refuse(format("\"%s\" is not a valid %s: one line of at most %zu characters", name.c_str(), what,
                      kMaxNameLength),
               position);
    }
}

bool isChipName(const std::string& name) {
    const std::string prefix = kChipPrefix;
    return name.starts_with(prefix) && name.size() > prefix.size() && name.size() <= kMaxNameLength &&
           name.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
}

void checkChip(const GpioChip& chip, std::set<std::string>& names) {
    if (!isChipName(chip.name)) {
        refuse(format("\"%s\" is not a GPIO chip name such as gpiochip0", chip.name.c_str()), chip.position);
    }
    if (!names.insert(chip.name).second) {
        refuse("there are two GPIO chips named " + chip.name, chip.position);
    }
    requireGpioName(chip.label, "label of a GPIO chip", chip.position);
    if (chip.lines.empty() || chip.lines.rbegin()->first > kMaxGpioOffset) {
        refuse(format("%s has no lines with offsets from 0 to %u", chip.name.c_str(), kMaxGpioOffset),
               chip.position);
    }
    for (const auto& [offset, name] : chip.lines) {
        requireGpioName(name, "name of a GPIO line", chip.position);
    }
}

}  // namespace

void checkGpio(const std::vector<GpioChip>& chips) {
    std::set<std::string> names;
    for (const GpioChip& chip : chips) {
        Mistakes::attempt([&] { checkChip(chip, names); });
    }
}

}  // namespace kvsim
