#include "layout/file_tree.h"

#include <filesystem>

namespace kvsim {

void FileTree::addLink(const std::string& path, const std::string& target) {
    const auto folder = std::filesystem::path(path).parent_path();
    nodes_.insert_or_assign(path, Link{std::filesystem::path(target).lexically_relative(folder)});
}

}  // namespace kvsim
