#pragma once

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <kvsim/machine.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace kv::bench {

/**
 * Runs benchmarks on a machine, in a process of its own since a process can enter one machine only.
 *
 * @param addBenchmarks  registers them, on the machine
 * @return whether the process ended well; one that may have no machine says so and counts as well
 */
template <typename Add>
bool runOn(kvsim::Machine machine, Add addBenchmarks) {
    const pid_t child = fork();
    if (child == 0) {
        try {
            machine.enter();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "skipped: %s\n", error.what());
            _exit(EXIT_SUCCESS);
        }
        addBenchmarks();
        benchmark::RunSpecifiedBenchmarks();
        std::exit(EXIT_SUCCESS);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
}

}  // namespace kv::bench
