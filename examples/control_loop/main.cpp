#include <chrono>

#include <brevane/Kernel.h>
#include <brevane/start_callbacks.h>

#include "account.h"
#include "control_loop.h"

namespace {

bool awaitTrigger(std::chrono::milliseconds timeout, brevane::Trigger& trigger) {
    AnalogTick tick{};
    if (!control_loop_awaitTrigger(static_cast<int>(timeout.count()), &tick)) {
        return false;
    }
    trigger.due = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(tick.dueNs));
    trigger.missed = tick.missed;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const brevane::Model model{
        .name = "control_loop",
        .initialize =
            [] {
                printMachine();
                control_loop_initialize();
            },
        .step = control_loop_step,
        .terminate =
            [] {
                control_loop_terminate();
                printOutcome();
            },
        .errorStatus = control_loop_errorStatus,
        .awaitTrigger = awaitTrigger,
        .triggerDevice = control_loop_triggerDevice,
        .triggerPeriod = std::chrono::nanoseconds(control_loop_DW.timer.periodNs),
        .record = writeRecord,
        .facts = facts,
    };
    // Start callbacks run once the model is initialised, on the thread that will step it.
    registerCB_C(
        [](void*) {
            control_loop_start();
            printStart();
        },
        nullptr, 0);
    return brevane::runMain(argc, argv, model);
}
