#pragma once

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "os/unique_fd.h"

namespace kv::os {

/** Whether only root or the effective user may have made a file what it is. */
inline bool isTrusted(const struct stat& status) noexcept {
    return status.st_uid == 0 || status.st_uid == ::geteuid();
}

/** Who may own the folder of a file. */
enum class FolderOf { RootOrUser, Anybody };

/**
 * Opens a file of a folder that other users can reach: a regular file of root or the effective user. Neither
 * the file nor the folder may be a link. With O_CREAT in the flags a file that is missing is made.
 *
 * The result is empty on failure, with the reason in errno: also ELOOP or ENOTDIR for a link, EMLINK for a
 * file with further names, EINVAL for a file of another kind, which never blocks, and EPERM for another
 * owner.
 */
inline UniqueFd openTrustedFile(const char* folder, const char* name, int flags,
                                FolderOf owner = FolderOf::RootOrUser) noexcept {
    constexpr mode_t kNewFileMode = 0666;
    const UniqueFd directory = openFile(folder, O_PATH | O_DIRECTORY | O_NOFOLLOW);
    struct stat status {};
    if (!directory || ::fstat(directory.get(), &status) != 0) {
        return {};
    }
    if (owner == FolderOf::RootOrUser && !isTrusted(status)) {
        errno = EPERM;
        return {};
    }
    UniqueFd file(::openat(directory.get(), name, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                           kNewFileMode));
    if (!file || ::fstat(file.get(), &status) != 0) {
        return {};
    }
    errno = 0;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
    } else if (!isTrusted(status)) {
        errno = EPERM;
    } else if (status.st_nlink > 1) {
        errno = EMLINK;
    }
    return errno == 0 ? std::move(file) : UniqueFd();
}

}  // namespace kv::os
