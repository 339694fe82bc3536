#pragma once

#include <pthread.h>

namespace kv::os {

/**
 * Holds the cancellation of the calling thread back while it lives. A cancelled thread unwinds from within
 * open(), close(), read() or write(), and there that would end the process in a noexcept function or a
 * destructor, or leave open what C code has opened. Objects nest.
 */
class [[nodiscard]] CancellationHold {
 public:
    CancellationHold() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~CancellationHold() { pthread_setcancelstate(former_, nullptr); }
    CancellationHold(const CancellationHold&) = delete;
    CancellationHold& operator=(const CancellationHold&) = delete;

 private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace kv::os
