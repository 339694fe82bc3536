#pragma once

#include <string>

#include "layout/file_tree.h"

namespace kvsim {

inline constexpr unsigned kTtyMajor = 4;
// The kernel gives these out as drivers are loaded.
inline constexpr unsigned kDmaBufferMajor = 242;
inline constexpr unsigned kUioMajor = 243;

/** The database entry that marks a device as ready: enumerations pass over numbered devices without one. */
inline constexpr const char* kReadyEntry = "I:1\n";

/** What sysfs shows of a device because it has the device file /dev/@p name. */
void addCharacterDevice(const std::string& path, const std::string& name, unsigned major, unsigned minor,
                        FileTree& tree);

}  // namespace kvsim
