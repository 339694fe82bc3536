#pragma once

namespace kv::test {

/**
 * While it lives, the n-th call of malloc or realloc that the objects under test make fails, counted from 0;
 * the others succeed. The test program links with
 * --wrap for malloc, realloc and free.
 */
class FailingAllocation {
 public:
    explicit FailingAllocation(int n);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /** Whether that call was reached. */
    [[nodiscard]] static bool happened();
};

/** Pieces of memory that the objects under test have from malloc and have not freed. */
long liveAllocations();

}  // namespace kv::test
