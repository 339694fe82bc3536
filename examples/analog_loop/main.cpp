#include <chrono>

#include <brevane/Kernel.h>
#include <brevane/start_callbacks.h>

#include "account.h"
#include "analog_loop.h"

int main(int argc, char** argv) {
    const brevane::Model model{
        .name = "analog_loop",
        .basePeriod = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(analog_loop_P.stepSize)),
        .initialize =
            [] {
                printMachine();
                analog_loop_initialize();
            },
        .step = analog_loop_step,
        .terminate =
            [] {
                analog_loop_terminate();
                printOutcome();
            },
        .errorStatus = analog_loop_errorStatus,
    };
    // The boards are known once the model is initialised, which is when start callbacks run.
    registerCB_C([](void*) { printBoards(); }, nullptr, 0);
    return brevane::runMain(argc, argv, model);
}
