#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <kvsim/machine.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/log/core.hpp>

#include <kv/memory.h>

#include "goal.h"
#include "run_on.h"

namespace {

namespace interprocess = boost::interprocess;

constexpr int kNames = 1000;
constexpr std::size_t kFragmentBytes = 65536;
constexpr uint32_t kBytesPerName = 64;

std::vector<std::string> names() {
    std::vector<std::string> all;
    for (int i = 0; i < kNames; ++i) {
        all.push_back("controller state " + std::to_string(i));
    }
    return all;
}

std::vector<std::string> shuffledNames() {
    auto all = names();
    std::shuffle(all.begin(), all.end(), std::mt19937(1));
    return all;
}

/* ---- Get by name ---- */

void getOurs(benchmark::State& state) {
    for (const std::string& name : names()) {
        if (kv_getPersistentMemory(name.c_str()) == nullptr &&
            kv_allocPersistentMemory(name.c_str(), kBytesPerName) == nullptr) {
            state.SkipWithError("a block could not be made");
        }
    }
    const auto all = shuffledNames();
    for (auto _ : state) {
        for (const std::string& name : all) {
            benchmark::DoNotOptimize(kv_getPersistentMemory(name.c_str()));
        }
    }
    state.SetItemsProcessed(state.iterations() * kNames);
    kv::bench::setGoal(state, 0.3);
}

void getBaseline(benchmark::State& state) {
    constexpr const char* kObject = "baseline";
    interprocess::shared_memory_object::remove(kObject);
    interprocess::managed_shared_memory memory(interprocess::create_only, kObject, 1 << 20);
    using Block = std::array<char, kBytesPerName>;
    for (const std::string& name : names()) {
        memory.construct<Block>(name.c_str())();
    }
    const auto all = shuffledNames();
    for (auto _ : state) {
        for (const std::string& name : all) {
            benchmark::DoNotOptimize(memory.find<Block>(name.c_str()).first);
        }
    }
    state.SetItemsProcessed(state.iterations() * kNames);
}

/* ---- Re-attach: each time in a process that has nothing mapped yet ---- */

/** Runs an action in a process of its own. @return how many seconds it took there; negative where it failed
 */
template <typename Action>
double secondsInChild(Action action) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return -1;
    }
    const pid_t child = fork();
    if (child == 0) {
        const auto begin = std::chrono::steady_clock::now();
        const bool good = action();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        const double seconds = good ? time.count() : -1;
        _exit(write(ends[1], &seconds, sizeof seconds) == sizeof seconds ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    close(ends[1]);
    double seconds = -1;
    (void)!read(ends[0], &seconds, sizeof seconds);  // nothing to read where the child failed
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return seconds;
}

template <typename Action>
void timeInChildren(benchmark::State& state, Action action) {
    for (auto _ : state) {
        const double seconds = secondsInChild(action);
        if (seconds < 0) {
            state.SkipWithError("a process could not attach");
            break;
        }
        state.SetIterationTime(seconds);
    }
}

void reattachOurs(benchmark::State& state) {
    secondsInChild([] {
        for (const std::string& name : names()) {
            kv_allocPersistentMemory(name.c_str(), kBytesPerName);
        }
        return true;
    });
    const std::string last = names().back();
    timeInChildren(state, [&] { return kv_getPersistentMemory(last.c_str()) != nullptr; });
    kv::bench::setGoal(state, 1.2);
}

std::string bareObject(const std::string& name) {
    return "/bare " + name;
}

bool attachBare(const std::string& object) {
    const int fd = shm_open(object.c_str(), O_RDWR | O_CREAT, 0777);
    return fd >= 0 && mmap(nullptr, kFragmentBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) != MAP_FAILED;
}

void reattachBaseline(benchmark::State& state) {
    std::vector<std::string> objects;
    for (const std::string& name : names()) {
        objects.push_back(bareObject(name));
        const int fd = shm_open(objects.back().c_str(), O_RDWR | O_CREAT, 0777);
        if (ftruncate(fd, kFragmentBytes) != 0) {
            state.SkipWithError("an object could not be made");
        }
        close(fd);
    }
    timeInChildren(state, [&] { return std::all_of(objects.begin(), objects.end(), attachBare); });
}

/* ---- Running ---- */

/** Each name costs a descriptor. */
bool mayOpenEnough() {
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    return descriptors.rlim_max > kNames + 100;
}

}  // namespace

int main(int argc, char** argv) {
    boost::log::core::get()->set_logging_enabled(false);
    benchmark::Initialize(&argc, argv);
    if (!mayOpenEnough()) {
        std::fprintf(stderr, "skipped: persistent memory, a process may have too few descriptors here\n");
        return EXIT_SUCCESS;
    }
    const bool gotten = kv::bench::runOn({}, [] {
        benchmark::RegisterBenchmark("persistent memory: get 1000 names/ours", getOurs);
        benchmark::RegisterBenchmark("persistent memory: get 1000 names/baseline", getBaseline);
    });
    const bool attached = kv::bench::runOn({}, [] {
        benchmark::RegisterBenchmark("persistent memory: re-attach 1000 names/ours", reattachOurs)
            ->UseManualTime();
        benchmark::RegisterBenchmark("persistent memory: re-attach 1000 names/baseline", reattachBaseline)
            ->UseManualTime();
    });
    return gotten && attached ? EXIT_SUCCESS : EXIT_FAILURE;
}
