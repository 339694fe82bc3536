#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace kv::test {

/** Starts a process that is a copy of this one, runs a body and ends; its status is 0 when no expectation
 * failed. */
template <typename Body>
pid_t startChild(Body body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

/** Waits for a child. @return its wait status */
inline int waitFor(pid_t child) {
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

/** Runs a body in a process of its own. @return its wait status */
template <typename Body>
int inChild(Body body) {
    return waitFor(startChild(body));
}

}  // namespace kv::test
