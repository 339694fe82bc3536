#pragma once

#include <sched.h>
#include <sys/resource.h>
#include <vector>

namespace brevane {

/** SCHED_FIFO for the calling thread while the object lives, where the rights allow it. */
class RealTimePriority {
 public:
    explicit RealTimePriority(int priority);
    ~RealTimePriority();
    RealTimePriority(const RealTimePriority&) = delete;
    RealTimePriority& operator=(const RealTimePriority&) = delete;

    /** 0, or the error number that tells why the thread keeps its former priority. */
    [[nodiscard]] int error() const noexcept { return error_; }

 private:
    int formerPolicy_;
    sched_param formerParameters_{};
    int error_ = 0;
};

/** The process's memory, present and future, locked while the object lives, where the rights allow it. */
class LockedMemory {
 public:
    LockedMemory();
    ~LockedMemory();
    LockedMemory(const LockedMemory&) = delete;
    LockedMemory& operator=(const LockedMemory&) = delete;

    /** 0, or the error number that tells why nothing is locked. */
    [[nodiscard]] int error() const noexcept { return error_; }

 private:
    rlimit formerLimit_{};
    bool limitRaised_ = false;
    int error_ = 0;
};

/** The CPUs that the calling thread may run on, in ascending order; none where the kernel doesn't say. */
std::vector<int> allowedCpus();

}  // namespace brevane
