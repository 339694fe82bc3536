#include "account.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <span>

#include <kv/lifecycle.h>
#include <kv/registry.h>
#include <kv/target.h>

#include "control_loop.h"
#include "response.h"

namespace {

constexpr double kMillisecondsPerSecond = 1e3;

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

void printTrigger(const AnalogTimer& timer) {
    std::printf("trigger     timer interrupt of board %d every %.3f ms, through /dev/uio%d; ", timer.moduleId,
                timer.periodNs / 1e6, timer.interrupt->uioIndex);
    const int cpu = timer.interrupt->irq_cpu_assigned;
    std::printf(timer.pinned ? "the model runs on CPU %d\n" : "CPU %d is not to be had\n", cpu);
}

void printController() {
    const ControllerState& state = *control_loop_DW.state;
    if (state.runs == 1) {
        std::printf("controller  starts from zero\n");
    } else {
        std::printf("controller  goes on in run %u, its integrator at %.2f V as the run before left it\n",
                    state.runs, control_loop_DW.startIntegrator);
    }
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

std::span<const RecordedStep> recordedSteps() {
    return {control_loop_record, std::min<std::size_t>(control_loop_DW.steps, MAX_RECORDED_STEPS)};
}

void printControl() {
    const Settling settling = settlingOf(recordedSteps());
    std::printf("response    %.2f V at last, with the integrator at %.2f V; %u samples lost\n",
                control_loop_B.response, control_loop_DW.state->integrator, control_loop_DW.stream.lost);
    if (settling.changes == 0) {
        std::printf("settling    the run was too short for a change of the set point\n");
        return;
    }
    std::printf("settling    %u of %u changes between %.2f V and %.2f V came to within 2 %%, ",
                settling.settled, settling.changes, settling.lowestSetPoint, settling.highestSetPoint);
    std::printf("at the latest after %.0f ms\n",
                settling.slowestSteps * control_loop_P.stepSize * kMillisecondsPerSecond);
}

}  // namespace

void printMachine() {
    std::printf("machine     %s, serial number %d, processor at %d degrees Celsius\n",
                kv_getTargetMarketingName(), kv_getSerialNumber(), kv_getCpuTemperature());
}

void printStart() {
    std::printf("start       %s\n", kv_isFirstModelLoad() != 0
                                        ? "model load: this model has not run since the machine started"
                                        : "model run: this model is being restarted");
    printBoard(control_loop_P.setup1, "as the first board of its kind");
    printBoard(control_loop_P.setup2, "as the second of two variants");
    printTrigger(control_loop_DW.timer);
    std::printf("samples     by DMA to 0x%08llx\n",
                static_cast<unsigned long long>(control_loop_DW.stream.physicalAddress));
    printController();
}

void printOutcome() {
    if (control_loop_DW.steps > 0) {
        printMonitor(control_loop_DW.monitor.report);
        printControl();
    }
    const bool empty = boardOf(control_loop_P.setup1) == nullptr && boardOf(control_loop_P.setup2) == nullptr;
    std::printf("registry    %s\n", empty ? "empty again" : "still holds a module");
}

void writeRecord(std::ostream& out) {
    out << "time_s,set_point_V,response_V,output_V\n";
    double time = 0;
    for (const RecordedStep& step : recordedSteps()) {
        out << time << ',' << step.setPoint << ',' << step.response << ',' << step.output << '\n';
        time += control_loop_P.stepSize;
    }
}
