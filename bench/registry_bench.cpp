#include <cstdint>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/log/core.hpp>

#include <kv/registry.h>

#include "goal.h"

namespace {

constexpr uint32_t kType = 3;
constexpr std::size_t kLookUps = 1024;

std::vector<uint32_t> randomIds(uint32_t count) {
    std::mt19937 random(1);
    std::vector<uint32_t> ids(kLookUps);
    for (uint32_t& id : ids) {
        id = static_cast<uint32_t>(random() % count);
    }
    return ids;
}

void getOurs(benchmark::State& state) {
    const auto count = static_cast<uint32_t>(state.range(0));
    for (uint32_t id = 0; id < count; ++id) {
        kv_module_register(kType, id);
    }
    const auto ids = randomIds(count);
    for (auto _ : state) {
        for (const uint32_t id : ids) {
            benchmark::DoNotOptimize(kv_module_get_single(kType, id));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kLookUps));
    kv::bench::setGoal(state, 1.5);
    for (uint32_t id = 0; id < count; ++id) {
        kv_module_unregister(kType, id);
    }
}

using Table = std::vector<std::vector<kv_mod_info*>>;

kv_mod_info* twoIndexes(const Table& table, uint32_t type, uint32_t id) {
    return type < table.size() && id < table[type].size() ? table[type][id] : nullptr;
}

// Two checked array indexes behind an indirect call, which is how a program calls a shared library.
kv_mod_info* (*volatile libraryCall)(const Table&, uint32_t, uint32_t) = twoIndexes;

void getBaseline(benchmark::State& state) {
    const auto count = static_cast<uint32_t>(state.range(0));
    Table table(kType + 1);
    table[kType].resize(count);
    std::vector<std::unique_ptr<kv_mod_info>> records;
    for (uint32_t id = 0; id < count; ++id) {
        records.push_back(std::make_unique<kv_mod_info>());
        table[kType][id] = records.back().get();
    }
    const auto ids = randomIds(count);
    for (auto _ : state) {
        for (const uint32_t id : ids) {
            benchmark::DoNotOptimize(libraryCall(table, kType, id));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kLookUps));
}

constexpr uint32_t kRegistrations = 100'000;

void registerOurs(benchmark::State& state) {
    for (auto _ : state) {
        for (uint32_t id = 0; id < kRegistrations; ++id) {
            benchmark::DoNotOptimize(kv_module_register(kType, id));
        }
        state.PauseTiming();
        for (uint32_t id = 0; id < kRegistrations; ++id) {
            kv_module_unregister(kType, id);
        }
        state.ResumeTiming();
    }
    kv::bench::setGoal(state, 1.2);
}

void registerBaseline(benchmark::State& state) {
    for (auto _ : state) {
        auto records = std::make_unique<std::unordered_map<uint64_t, kv_mod_info>>();
        for (uint32_t id = 0; id < kRegistrations; ++id) {
            const uint64_t key = uint64_t{kType} << 32 | id;
            benchmark::DoNotOptimize(records->try_emplace(key));
        }
        state.PauseTiming();
        records.reset();
        state.ResumeTiming();
    }
}

BENCHMARK(getOurs)->Name("registry: get 1024 modules/ours")->RangeMultiplier(10)->Range(10, 100'000);
BENCHMARK(getBaseline)->Name("registry: get 1024 modules/baseline")->RangeMultiplier(10)->Range(10, 100'000);
BENCHMARK(registerOurs)->Name("registry: register 100000 ascending/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(registerBaseline)
    ->Name("registry: register 100000 ascending/baseline")
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    boost::log::core::get()->set_logging_enabled(false);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
