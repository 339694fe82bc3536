#include "serial/kv_target_order.h"

#include <algorithm>

namespace kv::serial {

namespace {

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

/** Negative, 0 or positive, as the first run sorts before, with or after the second. */
int compareRuns(const std::string& a, const std::string& b) {
    if (isDigit(a.front()) && isDigit(b.front())) {
        const int numberOfA = std::stoi(a);
        const int numberOfB = std::stoi(b);
        return numberOfA < numberOfB ? -1 : static_cast<int>(numberOfA > numberOfB);
    }
    return a.compare(b);
}

}  // namespace

std::vector<std::string> splitAlphaNum(std::string_view text) {
    std::vector<std::string> runs;
    while (!text.empty()) {
        const bool isNumber = isDigit(text.front());
        const auto end =
            std::ranges::find_if(text, [isNumber](char each) { return isDigit(each) != isNumber; });
        runs.emplace_back(text.begin(), end);
        text.remove_prefix(runs.back().size());
    }
    return runs;
}

bool doNaturalCompare(std::string_view a, std::string_view b) {
    const std::vector<std::string> runsOfA = splitAlphaNum(a);
    const std::vector<std::string> runsOfB = splitAlphaNum(b);
    const std::size_t common = std::min(runsOfA.size(), runsOfB.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (const int order = compareRuns(runsOfA[i], runsOfB[i]); order != 0) {
            return order < 0;
        }
    }
    return runsOfB.size() > runsOfA.size();
}

}  // namespace kv::serial
