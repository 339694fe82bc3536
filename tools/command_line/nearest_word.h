#pragma once

#include <optional>
#include <string>
#include <vector>

namespace command_line {

/**
 * The known word that was probably meant: no more than two letters differ, are missing or are too many, and
 * fewer than the word has. Leading dashes do not count.
 */
std::optional<std::string> nearestWord(const std::string& word, const std::vector<std::string>& known);

}  // namespace command_line
