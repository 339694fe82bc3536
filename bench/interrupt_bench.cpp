#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <kvsim/machine.h>
#include <string>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <boost/log/core.hpp>

#include <kv/soc.h>

#include "goal.h"
#include "run_on.h"

namespace {

constexpr uint8_t kBus = 1;
constexpr uint8_t kUpperCommandByte = 5;

/** A board whose timer nobody serves: its line stays asserted, and the next interrupt comes as soon as this
 * one is enabled. */
kvsim::Machine machineWithBusyBoard() {
    kvsim::Machine machine;
    machine.addBridge({.slot = 1}, kBus);
    machine.addPciFunction({.bus = kBus, .vendor = 0x1b5a, .device = 0x0a18})
        .bar(0, 0xA0000000, 0x1000)
        .irq(48)
        .board("analog-io");
    machine.addPciDriver("uio_kelvaro");
    return machine;
}

constexpr uint32_t kTimerPeriod = 0x50;
constexpr uint32_t kInterruptEnable = 0x5C;

/** Files of a context: read(2) of the one gives 4 bytes, pwrite(2) to the other takes one. */
using Attach = kv_InterruptContext* (*)();

kv_InterruptContext* contextOf(kv_PCIDevice board) {
    kv_InterruptContext* context = nullptr;
    kv_uio_createInterruptContext(&context, &board);
    return context;
}

/** Files that cost next to nothing show what the library itself adds. */
kv_InterruptContext* attachToIdleFiles() {
    kv_InterruptContext* const context = contextOf({});
    context->uiofd = open("/dev/zero", O_RDWR | O_CLOEXEC);
    context->configfd = open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    return context;
}

kv_InterruptContext* attachToBoard() {
    kv_PCIDevice board{};
    board.bus = kBus;
    board.VendorId = 0x1b5a;
    board.DeviceId = 0x0a18;
    kv_InterruptContext* const context = contextOf(board);
    if (kv_uio_interruptAttach(context) != 0) {
        return context;
    }
    const kvsim::PciFunctionFiles files(machineWithBusyBoard().description().pciFunctions.back());
    files.setBarWord(0, kInterruptEnable, 1);
    files.setBarWord(0, kTimerPeriod, 1000000);
    kv_uio_enableInterrupt(context);
    return context;
}

template <typename Round>
void serve(benchmark::State& state, Attach attach, Round round) {
    kv_InterruptContext* const context = attach();
    if (context->uiofd < 0 || context->configfd < 0) {
        state.SkipWithError("the context could not be attached");
    }
    for (auto _ : state) {
        if (!round(*context)) {
            state.SkipWithError("an interrupt could not be served");
            break;
        }
    }
    kv_uio_interruptDetach(context);
}

void ours(benchmark::State& state, Attach attach) {
    serve(state, attach, [](kv_InterruptContext& context) {
        return kv_uio_interruptWait(&context) == 0 && kv_uio_enableInterrupt(&context) == 0;
    });
    kv::bench::setGoal(state, 1.05);
}

void baseline(benchmark::State& state, Attach attach) {
    serve(state, attach, [](kv_InterruptContext& context) {
        const unsigned char enabled = context.command_high;
        int count = 0;
        return read(context.uiofd, &count, sizeof count) == sizeof count &&
               pwrite(context.configfd, &enabled, 1, kUpperCommandByte) == 1;
    });
}

void add(const std::string& operation, Attach attach) {
    benchmark::RegisterBenchmark((operation + "/ours").c_str(), ours, attach);
    benchmark::RegisterBenchmark((operation + "/baseline").c_str(), baseline, attach);
}

}  // namespace

int main(int argc, char** argv) {
    boost::log::core::get()->set_logging_enabled(false);
    benchmark::Initialize(&argc, argv);
    const bool good = kv::bench::runOn(machineWithBusyBoard(), [] {
        add("interrupt: wait and enable, idle files", attachToIdleFiles);
        add("interrupt: wait and enable, simulated board", attachToBoard);
    });
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
