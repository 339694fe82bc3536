#pragma once

#include <sys/stat.h>

namespace kvsim {

/** While it lives, files get exactly the mode that their maker asks for. Of the process: not for threads. */
class ClearedUmask {
 public:
    ClearedUmask() : former_(::umask(0)) {}
    ~ClearedUmask() { ::umask(former_); }
    ClearedUmask(const ClearedUmask&) = delete;
    ClearedUmask& operator=(const ClearedUmask&) = delete;

 private:
    mode_t former_;
};

}  // namespace kvsim
