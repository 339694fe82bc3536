#pragma once

#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <utility>

#include "os/kept_errno.h"

namespace kv::os {

/** Owns a file descriptor. Closing keeps errno, so a failure can still be told after clean-up. */
class UniqueFd {
 public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    void reset(int fd = -1) noexcept {
        const int old = std::exchange(fd_, fd);
        if (old < 0) {
            return;
        }
        const KeptErrno kept;
        ::close(old);
    }

 private:
    int fd_ = -1;
};

/** Opens a file that exists. The result is empty on failure, with the reason in errno. */
inline UniqueFd openFile(const char* path, int flags) noexcept {
    return UniqueFd(::open(path, flags | O_CLOEXEC));
}

inline UniqueFd openFile(const std::string& path, int flags) noexcept {
    return openFile(path.c_str(), flags);
}

}  // namespace kv::os
