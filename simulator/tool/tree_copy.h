#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kvsim {

/** The entries of an open folder, sorted. None where it can't be listed. */
std::vector<std::string> namesIn(int folder);

/** Opens a folder for reading, never through a link. -1 on failure, with the reason in errno. */
int openFolderAt(int folder, const std::string& name);

/** "a socket", "a symbolic link", ... */
const char* kindOf(mode_t type);

/** Takes the path, below the destination, of what can't be copied, and the reason. */
using CopyFailed = std::function<void(const std::string& path, const std::string& reason)>;

/**
 * Copies a file, a link, a FIFO or a folder with all that it holds, from one open folder to a path below
 * another. Folders above are made; what stands in its place is replaced, but a folder is merged into a
 * folder. No link is followed, neither in the source nor below the destination. Holes of files stay holes.
 *
 * Goes on after a failure; false where there was one. Of a file that can't be copied whole nothing is left.
 */
bool copyTree(int from, const std::string& name, int to, const std::string& path, const CopyFailed& failed);

}  // namespace kvsim
