#include "account.h"

#include <cstdio>

#include <kv/lifecycle.h>
#include <kv/registry.h>
#include <kv/target.h>

#include "analog_loop.h"

namespace {

const AnalogBoard* boardOf(const AnalogSetupParameters& setup) {
    return static_cast<const AnalogBoard*>(
        kv_module_get_custom_data(ANALOG_MODULE_TYPE, static_cast<uint32_t>(setup.moduleId)));
}

void printBoard(const AnalogSetupParameters& setup, const char* how) {
    const AnalogBoard& board = *boardOf(setup);
    std::printf("board %d     %04x:%04x at bus %u, slot %u, found %s\n", setup.moduleId, board.pci.VendorId,
                board.pci.DeviceId, board.pci.bus, board.pci.slot, how);
    std::printf("            registers at 0x%08x (%u bytes), identity 0x%08x\n", board.pci.BaseAddress[0],
                board.pci.Length[0], analogBoard_read(&board, ANALOG_IDENTITY));
}

void printMonitor(const BoardMonitorReport& report) {
    if (!report.ran) {
        std::printf("monitor     did not run: threads at SCHED_FIFO need real-time rights\n");
        return;
    }
    std::printf("monitor     %u readings, %u faults, at most %d degrees Celsius; ", report.readings,
                report.faults, report.hottest);
    if (report.cpu < 0) {
        std::printf("the machine has no CPU to spare\n");
    } else {
        std::printf(report.pinned ? "ran on CPU %d\n" : "CPU %d is not on this desk, so it ran anywhere\n",
                    report.cpu);
    }
}

}  // namespace

void printMachine() {
    std::printf("machine     %s, serial number %d, processor at %d degrees Celsius\n",
                kv_getTargetMarketingName(), kv_getSerialNumber(), kv_getCpuTemperature());
}

void printBoards() {
    std::printf("start       %s\n", kv_isFirstModelLoad() != 0
                                        ? "model load: this model has not run since the machine started"
                                        : "model run: this model is being restarted");
    printBoard(analog_loop_P.setup1, "as the first board of its kind");
    printBoard(analog_loop_P.setup2, "as the second of two variants");
}

void printOutcome() {
    printMonitor(analog_loop_DW.monitor.report);
    if (analog_loop_DW.steps > 0) {
        const B_analog_loop_T& signals = analog_loop_B;
        std::printf("input       %.2f V on channel 3 of board 1, %.2f V behind the filter\n",
                    signals.inputVolts, signals.filteredVolts);
        std::printf("output      %.2f V to %.2f V on channel 0 of board 1\n", signals.minOutputVolts,
                    signals.maxOutputVolts);
    }
    const bool empty = boardOf(analog_loop_P.setup1) == nullptr && boardOf(analog_loop_P.setup2) == nullptr;
    std::printf("registry    %s\n", empty ? "empty again" : "still holds a module");
}
