#include "active/cpu_set.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>

#include "layout/format.h"

namespace kvsim {

namespace {

constexpr unsigned kGroupCpus = 32;
constexpr std::size_t kGroupDigits = kGroupCpus / 4;
constexpr const char* kBlanks = " \t\n";

/** A whole text as a number. */
int parseNumber(std::string_view text, int base, std::uint32_t& number) {
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number, base);
    if (parsed.ec == std::errc::result_out_of_range) {
        return ERANGE;
    }
    return parsed.ec == std::errc() && parsed.ptr == end ? 0 : EINVAL;
}

/** Takes the first of the parts that separators divide a text into. */
std::string_view takePart(std::string_view& text, const char* separators) {
    const std::size_t length = std::min(text.find_first_of(separators), text.size());
    const std::string_view part = text.substr(0, length);
    text.remove_prefix(std::min(length + 1, text.size()));
    return part;
}

std::string_view withoutBlanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

/** A CPU of a list, where N stands for the last one. */
int parseCpu(std::string_view text, unsigned cpus, std::uint32_t& cpu) {
    if (text == "N") {
        cpu = cpus - 1;
        return 0;
    }
    return parseNumber(text, 10, cpu);
}

int addRange(std::string_view range, unsigned cpus, CpuSet& set) {
    if (range == "all") {
        range = "0-N";
    }
    const std::size_t dash = range.find('-');
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    if (const int error = parseCpu(range.substr(0, dash), cpus, first)) {
        return error;
    }
    last = first;
    if (dash != std::string_view::npos) {
        if (const int error = parseCpu(range.substr(dash + 1), cpus, last)) {
            return error;
        }
    }
    if (first > last) {
        return EINVAL;
    }
    if (last >= cpus) {
        return ERANGE;
    }
    for (std::uint32_t cpu = first; cpu <= last; ++cpu) {
        set.set(cpu);
    }
    return 0;
}

}  // namespace

std::string listText(const CpuSet& set) {
    std::string text;
    for (std::size_t first = 0; first < set.size(); ++first) {
        if (!set[first]) {
            continue;
        }
        std::size_t last = first;
        while (last + 1 < set.size() && set[last + 1]) {
            ++last;
        }
        text += (text.empty() ? "" : ",") + std::to_string(first);
        text += last == first ? "" : "-" + std::to_string(last);
        first = last;
    }
    return text;
}

std::string maskText(const CpuSet& set, unsigned cpus) {
    std::string text;
    for (unsigned first = (cpus - 1) / kGroupCpus * kGroupCpus;; first -= kGroupCpus) {
        const unsigned groupCpus = std::min(cpus - first, kGroupCpus);
        const auto group = ((set >> first) & CpuSet(UINT32_MAX)).to_ulong();
        text += (text.empty() ? "" : ",") + format("%0*lx", static_cast<int>((groupCpus + 3) / 4), group);
        if (first == 0) {
            return text;
        }
    }
}

int parseList(std::string_view text, unsigned cpus, CpuSet& set) {
    constexpr const char* kSeparators = ", \t\n";
    set.reset();
    while (!text.empty()) {
        const std::string_view range = takePart(text, kSeparators);
        const int error = range.empty() ? 0 : addRange(range, cpus, set);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

int parseMask(std::string_view text, unsigned cpus, CpuSet& set) {
    set.reset();
    text = withoutBlanks(text);
    if (std::ranges::count(text, ',') > (cpus - 1) / kGroupCpus) {
        return EOVERFLOW;
    }
    while (!text.empty()) {
        const std::string_view digits = takePart(text, ",");
        std::uint32_t group = 0;
        if (digits.size() > kGroupDigits) {
            return EOVERFLOW;
        }
        if (const int error = parseNumber(digits, 16, group)) {
            return error;
        }
        set = set << kGroupCpus | CpuSet(group);
    }
    return (set >> cpus).none() ? 0 : EOVERFLOW;
}

}  // namespace kvsim
