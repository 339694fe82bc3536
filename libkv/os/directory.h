#pragma once

#include <cerrno>
#include <dirent.h>
#include <memory>

namespace kv::os {

struct DirectoryCloser {
    void operator()(DIR* directory) const noexcept { closedir(directory); }
};
using DirectoryPtr = std::unique_ptr<DIR, DirectoryCloser>;

/** Opens a directory for reading. The result is empty on failure, with the reason in errno. */
inline DirectoryPtr openDirectory(const char* path) noexcept {
    return DirectoryPtr(::opendir(path));
}

/** The next entry of a directory; null at its end, with errno 0, and on failure, with the reason there. */
inline const dirent* nextEntry(DIR& directory) {
    errno = 0;
    return ::readdir(&directory);
}

}  // namespace kv::os
