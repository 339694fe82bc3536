#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <semaphore.h>
#include <string>

#include <benchmark/benchmark.h>

#include <kv/threads.h>

#include "goal.h"

namespace {

/* ---- Time ---- */

uint64_t readCounterNs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

void elapsedOurs(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(kv_getElapsedTime());
    }
    kv::bench::setGoal(state, 1.0);
}

void elapsedBaseline(benchmark::State& state) {
    for (auto _ : state) {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC_RAW, &time);
        benchmark::DoNotOptimize(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
    }
}

constexpr int kBatches = 20;
constexpr std::size_t kBatchSize = 201;

/** The median over a batch: a wait that the system interrupts tells nothing. */
template <typename Measure>
double medianNs(Measure measureNs) {
    std::array<double, kBatchSize> samples;
    std::ranges::generate(samples, measureNs);
    std::ranges::nth_element(samples, samples.begin() + kBatchSize / 2);
    return samples[kBatchSize / 2];
}

/** From one counter read to the next, with an action in between. */
template <typename Action>
double betweenReadsNs(Action action) {
    const uint64_t start = readCounterNs();
    action();
    return static_cast<double>(readCounterNs() - start);
}

/** Counted over many reads: the clock's steps are not much finer than one. */
double counterReadNs() {
    constexpr int kReads = 100;
    const auto manyReads = [] {
        for (int i = 1; i < kReads; ++i) {
            benchmark::DoNotOptimize(readCounterNs());
        }
    };
    return medianNs([&] { return betweenReadsNs(manyReads) / kReads; });
}

/** How much longer than asked a wait lasts, without the read that measuring it takes. */
void overshootOurs(benchmark::State& state, uint32_t delayNs) {
    const double measuringNs = counterReadNs();
    uint32_t sample = 0;
    const auto overshootNs = [&] {
        const uint32_t askedNs = delayNs + sample++ % 50;  // else the wait ends at one phase of its polling
        return betweenReadsNs([askedNs] { kv_wait_ns(askedNs); }) - measuringNs - askedNs;
    };
    for (auto _ : state) {
        state.SetIterationTime(medianNs(overshootNs) / 1e9);
    }
    kv::bench::setGoal(state, 1.0);
}

void overshootBaseline(benchmark::State& state) {
    for (auto _ : state) {
        state.SetIterationTime(2 * counterReadNs() / 1e9);
    }
}

/* ---- Semaphores and mutexes, nobody else wanting them ---- */

void semaphoreOurs(benchmark::State& state) {
    void* semaphore = kv_createSemaphore(0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(kv_releaseSemaphore(semaphore));
        benchmark::DoNotOptimize(kv_waitForSemaphore(semaphore));
    }
    kv_destroySemaphore(semaphore);
    kv::bench::setGoal(state, 1.1);
}

void semaphoreBaseline(benchmark::State& state) {
    sem_t semaphore;
    sem_init(&semaphore, 0, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sem_post(&semaphore));
        benchmark::DoNotOptimize(sem_wait(&semaphore));
    }
    sem_destroy(&semaphore);
}

void mutexOurs(benchmark::State& state) {
    void* mutex = kv_createMutex(false);
    for (auto _ : state) {
        kv_lockMutex(mutex);
        kv_unlockMutex(mutex);
    }
    kv_destroyMutex(mutex);
    kv::bench::setGoal(state, 1.1);
}

void mutexBaseline(benchmark::State& state) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
        benchmark::DoNotOptimize(pthread_mutex_unlock(&mutex));
    }
}

/* ---- Base rate ---- */

std::atomic<bool> started{true};

void baseRateOurs(benchmark::State& state) {
    kv_signalBaseRateSync();
    for (auto _ : state) {
        benchmark::DoNotOptimize(kv_waitForBaseRateSync());
    }
    kv::bench::setGoal(state, 1.1);
}

/** One atomic load, and a call to the library that does nothing. */
void baseRateBaseline(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(kv_setAbilities());
        benchmark::DoNotOptimize(started.load(std::memory_order_acquire));
    }
}

void addOvershoot(const std::string& delay, uint32_t delayNs) {
    const std::string name = "kv_wait_ns: overshoot at " + delay;
    const auto add = [&name](const char* variant, auto function) {
        benchmark::RegisterBenchmark((name + variant).c_str(), function)
            ->UseManualTime()
            ->Iterations(kBatches);
    };
    add("/ours", [delayNs](benchmark::State& state) { overshootOurs(state, delayNs); });
    add("/baseline", overshootBaseline);
}

BENCHMARK(elapsedOurs)->Name("kv_getElapsedTime/ours");
BENCHMARK(elapsedBaseline)->Name("kv_getElapsedTime/baseline");
BENCHMARK(semaphoreOurs)->Name("semaphore: post and wait/ours");
BENCHMARK(semaphoreBaseline)->Name("semaphore: post and wait/baseline");
BENCHMARK(mutexOurs)->Name("mutex: lock and unlock/ours");
BENCHMARK(mutexBaseline)->Name("mutex: lock and unlock/baseline");
BENCHMARK(baseRateOurs)->Name("base rate: wait after the signal/ours");
BENCHMARK(baseRateBaseline)->Name("base rate: wait after the signal/baseline");

}  // namespace

int main(int argc, char** argv) {
    addOvershoot("100 ns", 100);
    addOvershoot("1 us", 1'000);
    addOvershoot("10 us", 10'000);
    addOvershoot("100 us", 100'000);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
