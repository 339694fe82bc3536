#pragma once

#include <filesystem>
#include <map>
#include <sched.h>
#include <string>
#include <thread>

namespace kv::test {

/** Whether this user may have SCHED_FIFO, tried on a thread of its own. */
inline bool mayRunRealTime() {
    bool may = false;
    std::thread([&may] {
        const sched_param lowest{sched_get_priority_min(SCHED_FIFO)};
        may = sched_setscheduler(0, SCHED_FIFO, &lowest) == 0;
    }).join();
    return may;
}

/** Asks something of each thread of this process, by its thread id. */
template <typename Question>
auto ofEachThread(Question question) {
    std::map<pid_t, decltype(question(pid_t{}))> answers;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::stoi(task.path().filename());
        answers[thread] = question(thread);
    }
    return answers;
}

}  // namespace kv::test
