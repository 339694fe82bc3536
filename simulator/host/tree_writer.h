#pragma once

#include "layout/file_tree.h"

namespace kvsim {

/**
 * Writes a tree to the paths that it names. What a state folder holds from earlier is left as the machine
 * left it.
 *
 * Throws std::system_error naming the path where that fails.
 */
void writeTree(const FileTree& tree);

/** Removes what is there of a tree, and the folders below @p top that are empty then. */
void removeTree(const FileTree& tree, const std::string& top);

}  // namespace kvsim
