#pragma once

#include <string>

namespace kvsim {

/** Prints a message on standard error, each of its lines with the name of the program in front. */
void printMessage(const std::string& text);

/** A name as one word of a message: what is not printable ASCII shows as "\ooo". */
std::string printable(const std::string& name);

}  // namespace kvsim
