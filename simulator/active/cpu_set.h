#pragma once

#include <bitset>
#include <string>
#include <string_view>

#include "kvsim/description.h"

namespace kvsim {

/** CPUs by their numbers, with the two texts that the kernel has for them. */
using CpuSet = std::bitset<kMaxCpus>;

/** "0-2,5" */
std::string listText(const CpuSet& set);

/** Hexadecimal in groups of 32 CPUs, the highest first, with leading zeros for the CPUs that there are. */
std::string maskText(const CpuSet& set, unsigned cpus);

// Both take a text as people write it to a file, with or without a newline.
// @return 0; EINVAL for what is no such text, ERANGE or EOVERFLOW where it names a CPU that is not
// among the first so many

int parseList(std::string_view text, unsigned cpus, CpuSet& set);
int parseMask(std::string_view text, unsigned cpus, CpuSet& set);

}  // namespace kvsim
