#pragma once

#include <string>

namespace kvsim {

/**
 * Throws DescriptionError at a quote that is not closed. The parser takes the rest of the file into it, and
 * so what would be a comment behind its end. Where a later line has such a quote, the text ends there, and
 * the rest of that line is an error.
 */
void refuseUnclosedQuote(const std::string& text);

}  // namespace kvsim
