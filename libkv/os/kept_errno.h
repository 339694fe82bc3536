#pragma once

#include <cerrno>

namespace kv::os {

/** Puts errno back at the end of its life, so that a failure can still be told after clean-up and logging. */
class [[nodiscard]] KeptErrno {
 public:
    KeptErrno() = default;
    ~KeptErrno() { errno = saved_; }
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

 private:
    int saved_ = errno;
};

}  // namespace kv::os
