#pragma once

#include <fstream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

namespace brevane::test {

constexpr uid_t kNobody = 65534;

/** The root process is an ordinary one while this lives, but may become root again. */
class BorrowableRoot {
 public:
    BorrowableRoot() : done_(setresuid(kNobody, kNobody, 0) == 0) {}
    ~BorrowableRoot() {
        // Only root may set all three. The leak check at the end of the process needs to see into it.
        const bool restored = seteuid(0) == 0 && setresuid(0, 0, 0) == 0;
        prctl(PR_SET_DUMPABLE, restored ? 1 : 0);
    }
    BorrowableRoot(const BorrowableRoot&) = delete;
    BorrowableRoot& operator=(const BorrowableRoot&) = delete;

    explicit operator bool() const { return done_; }

 private:
    bool done_;
};

/** For the rest of the process. */
inline bool giveUpRoot() {
    return geteuid() != 0 || setresuid(kNobody, kNobody, kNobody) == 0;
}

/** A number of a /proc status file, the one at @p position after the name. */
inline long statusNumber(const std::string& path, const std::string& name, int position = 0) {
    std::ifstream status(path);
    for (std::string word; status >> word;) {
        if (word == name) {
            long number = -1;
            for (int i = 0; i <= position; ++i) {
                status >> number;
            }
            return number;
        }
    }
    return -1;
}

}  // namespace brevane::test
