#pragma once

#include <string>

#include "layout/file_tree.h"

namespace kvsim {

inline constexpr const char* kUioClass = "/sys/class/uio";

/** "/dev/uio0" */
std::string uioDeviceFile(unsigned number);

/** "uio/uio0" below the hardware device's folder */
std::string uioFolder(unsigned number);

/** What sysfs and the device database hold of a UIO device, but for what changes while it works. */
void layOutUioDevice(unsigned number, const std::string& name, const std::string& version,
                     const std::string& parentPath, FileTree& tree);

}  // namespace kvsim
