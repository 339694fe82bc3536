#include <benchmark/benchmark.h>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/trivial.hpp>
#include <boost/make_shared.hpp>

#include <brevane/Logger.h>
#include <kv/diagnostics.h>

#include "goal.h"

namespace {

namespace logging = boost::log;

/** Takes records and does nothing with them. */
class NullBackend : public logging::sinks::basic_sink_backend<logging::sinks::synchronized_feeding> {
 public:
    void consume(const logging::record_view& record) { benchmark::DoNotOptimize(&record); }
};

void printRecord(Severity severity) {
    kv_printf(severity, "Opening: %s\n", "/sys/bus/pci/devices/0000:03:00.0/resource0");
}

void bareRecord(logging::trivial::severity_level severity) {
    BOOST_LOG_CHANNEL_SEV(brevane::Logger::getLogger(), 0, severity)
        << "KV: Opening: /sys/bus/pci/devices/0000:03:00.0/resource0";
}

void lineOurs(benchmark::State& state) {
    for (auto _ : state) {
        printRecord(kv_error);
    }
    kv::bench::setGoal(state, 1.25);
}

void lineBaseline(benchmark::State& state) {
    for (auto _ : state) {
        bareRecord(logging::trivial::error);
    }
}

void filteredOurs(benchmark::State& state) {
    for (auto _ : state) {
        printRecord(kv_debug);
    }
    kv::bench::setGoal(state, 2.0);
}

void filteredBaseline(benchmark::State& state) {
    for (auto _ : state) {
        bareRecord(logging::trivial::debug);
    }
}

void disabledOurs(benchmark::State& state) {
    logging::core::get()->set_logging_enabled(false);
    for (auto _ : state) {
        printRecord(kv_error);
    }
    logging::core::get()->set_logging_enabled(true);
    kv::bench::setGoal(state, 3.0);
}

void disabledBaseline(benchmark::State& state) {
    logging::core::get()->set_logging_enabled(false);
    for (auto _ : state) {
        benchmark::DoNotOptimize(logging::core::get()->get_logging_enabled());
    }
    logging::core::get()->set_logging_enabled(true);
}

BENCHMARK(lineOurs)->Name("kv_printf: one line to a null sink/ours");
BENCHMARK(lineBaseline)->Name("kv_printf: one line to a null sink/baseline");
BENCHMARK(filteredOurs)->Name("kv_printf: filtered/ours");
BENCHMARK(filteredBaseline)->Name("kv_printf: filtered/baseline");
BENCHMARK(disabledOurs)->Name("kv_printf: disabled/ours");
BENCHMARK(disabledBaseline)->Name("kv_printf: disabled/baseline");

}  // namespace

int main(int argc, char** argv) {
    const auto core = logging::core::get();
    core->add_sink(boost::make_shared<logging::sinks::synchronous_sink<NullBackend>>());
    core->set_filter(logging::expressions::attr<logging::trivial::severity_level>("Severity") >=
                     logging::trivial::warning);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
