#pragma once

#include <benchmark/benchmark.h>

namespace kv::bench {

/** Notes the highest ratio to its baseline at which an operation counts as fast; scripts/bench prints it. */
inline void setGoal(benchmark::State& state, double ratio) {
    state.counters["goal"] = ratio;
}

}  // namespace kv::bench
