#include "command_line/nearest_word.h"

#include <algorithm>
#include <numeric>
#include <string_view>

namespace command_line {

namespace {

constexpr std::size_t kMaxTypingErrors = 2;

std::string_view withoutDashes(std::string_view name) {
    return name.substr(std::min(name.find_first_not_of('-'), name.size()));
}

/** How many letters must be changed, added or taken away to make one word of the other. */
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

}  // namespace

std::optional<std::string> nearestWord(const std::string& word, const std::vector<std::string>& known) {
    const std::string_view letters = withoutDashes(word);
    const auto distance = [letters](const std::string& other) {
        return editDistance(letters, withoutDashes(other));
    };
    const auto nearest = std::ranges::min_element(known, {}, distance);
    if (nearest == known.end() || distance(*nearest) > kMaxTypingErrors ||
        distance(*nearest) >= letters.size()) {
        return std::nullopt;
    }
    return *nearest;
}

}  // namespace command_line
