#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kvsim {

/** The known word that was probably meant: no more than two letters differ, are missing or are too many. */
std::optional<std::string> nearestWord(const std::string& word, const std::vector<std::string>& known);

}  // namespace kvsim
