#include "account.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include <kv/lifecycle.h>
#include <kv/process.h>
#include <kv/registry.h>
#include <kv/target.h>

#include "control_loop.h"
#include "response.h"

namespace {

/** Tell two steps apart in a run of 1000 s. */
constexpr int kRecordDigits = 7;
constexpr double kMillisecondsPerSecond = 1e3;

std::vector<brevane::Fact> notedFacts;

template <typename Value>
void note(const char* section, const char* key, const Value& value) {
    notedFacts.push_back({section, key, value});
}

/** What the library returns for a number that it can't find out. */
constexpr int kUnknown = -1;

std::string temperatureText(const std::string& preposition, int celsius) {
    return celsius == kUnknown ? "temperature unknown"
                               : preposition + " " + std::to_string(celsius) + " degrees Celsius";
}

/** A machine has one serial number, of one of three kinds. */
std::string serialNumberText(int customers, int internal, int suppliers) {
    if (customers != kUnknown) {
        return std::to_string(customers);
    }
    if (internal != kUnknown) {
        return "i" + std::to_string(internal);
    }
    return suppliers == kUnknown ? "unknown" : "s" + std::to_string(suppliers);
}

std::string countText(unsigned count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

void noteUnlessUnknown(const char* section, const char* key, int value) {
    if (value == kUnknown) {
        note(section, key, std::monostate());
    } else {
        note(section, key, value);
    }
}

const AnalogBoard* boardOf(const AnalogSetupParameters& setup) {
    return static_cast<const AnalogBoard*>(
        kv_module_get_custom_data(ANALOG_MODULE_TYPE, static_cast<uint32_t>(setup.moduleId)));
}

void printBoard(const char* section, const AnalogSetupParameters& setup, const char* how) {
    const AnalogBoard& board = *boardOf(setup);
    const uint32_t identity = analogBoard_read(&board, ANALOG_IDENTITY);
    std::printf("board %d     %04x:%04x at bus %u, slot %u, found %s\n", setup.moduleId, board.pci.VendorId,
                board.pci.DeviceId, board.pci.bus, board.pci.slot, how);
    std::printf("            registers at 0x%08x (%u bytes), identity 0x%08x\n", board.pci.BaseAddress[0],
                board.pci.Length[0], identity);
    note(section, "vendor", board.pci.VendorId);
    note(section, "device", board.pci.DeviceId);
    note(section, "bus", board.pci.bus);
    note(section, "slot", board.pci.slot);
    note(section, "registers_address", board.pci.BaseAddress[0]);
    note(section, "registers_bytes", board.pci.Length[0]);
    note(section, "identity", identity);
}

void printTrigger(const AnalogTimer& timer) {
    const int cpu = timer.interrupt->irq_cpu_assigned;
    std::printf("trigger     timer interrupt of board %d every %.3f ms, through /dev/uio%d; ", timer.moduleId,
                timer.periodNs / 1e6, timer.interrupt->uioIndex);
    std::printf(timer.pinned ? "the model runs on CPU %d\n" : "CPU %d is unavailable\n", cpu);
    note("trigger", "period_us", timer.periodNs / 1e3);
    note("trigger", "uio", timer.interrupt->uioIndex);
    noteUnlessUnknown("trigger", "cpu", cpu);
    note("trigger", "pinned", timer.pinned);
}

void printController() {
    const ControllerState& state = *control_loop_DW.state;
    if (state.runs == 1) {
        std::printf("controller  starts from zero\n");
    } else {
        std::printf("controller  goes on in run %u, its integrator at %.2f V as the run before left it\n",
                    state.runs, control_loop_DW.startIntegrator);
    }
    note("controller", "run", state.runs);
    note("controller", "start_integrator_v", control_loop_DW.startIntegrator);
}

void printMonitor(const BoardMonitorReport& report) {
    note("monitor", "ran", report.ran);
    if (!report.ran) {
        std::printf("monitor     did not run: threads at SCHED_FIFO need real-time rights\n");
        return;
    }
    std::printf("monitor     %s, %s, %s; ", countText(report.readings, "reading").c_str(),
                countText(report.faults, "fault").c_str(),
                temperatureText("at most", report.hottest).c_str());
    if (report.cpu < 0) {
        std::printf("the machine has no CPU to spare\n");
    } else {
        std::printf(report.pinned ? "ran on CPU %d\n" : "CPU %d is not on this host, so it ran anywhere\n",
                    report.cpu);
    }
    note("monitor", "readings", report.readings);
    note("monitor", "faults", report.faults);
    noteUnlessUnknown("monitor", "hottest_celsius", report.hottest);
    noteUnlessUnknown("monitor", "cpu", report.cpu);
    note("monitor", "pinned", report.pinned);
}

std::span<const RecordedStep> recordedSteps() {
    return {control_loop_record, std::min<std::size_t>(control_loop_DW.steps, MAX_RECORDED_STEPS)};
}

void printSettling(const Settling& settling) {
    note("settling", "changes", settling.changes);
    note("settling", "settled", settling.settled);
    if (settling.changes == 0) {
        std::printf("settling    the run was too short for a change of the set point\n");
        return;
    }
    const double slowestMs = settling.slowestTime * kMillisecondsPerSecond;
    std::printf("settling    %u of %s between %.2f V and %.2f V came to within 2 %%, ", settling.settled,
                countText(settling.changes, "change").c_str(), settling.lowestSetPoint,
                settling.highestSetPoint);
    std::printf("at the latest after %.0f ms\n", slowestMs);
    note("settling", "lowest_set_point_v", settling.lowestSetPoint);
    note("settling", "highest_set_point_v", settling.highestSetPoint);
    note("settling", "slowest_ms", slowestMs);
}

void printControl() {
    const double integrator = control_loop_DW.state->integrator;
    std::printf("response    %.2f V at last, with the integrator at %.2f V; %s lost\n",
                control_loop_B.response, integrator,
                countText(control_loop_DW.stream.lost, "sample").c_str());
    note("response", "last_v", control_loop_B.response);
    note("response", "integrator_v", integrator);
    note("response", "samples_lost", control_loop_DW.stream.lost);
    printSettling(settlingOf(recordedSteps()));
}

/** The version of the library's installed package; a model that runs from a build tree may have none. */
void printLibrary() {
    char line[KV_LIB_VERSION_SIZE] = "";
    if (kv_getLibVersion(line) != 0) {
        note("versions", "libkv", std::monostate());
        return;
    }
    const std::string version(line, std::strcspn(line, "\n"));
    std::printf("library     libkv %s\n", version.c_str());
    note("versions", "libkv", version);
}

}  // namespace

void printMachine() {
    const char* name = kv_getTargetMarketingName();
    const int serialNumber = kv_getSerialNumber();
    const int internal = kv_getSerialNumberInternal();
    const int suppliers = kv_getSerialNumberSupplier();
    const int celsius = kv_getCpuTemperature();
    std::printf("machine     %s, serial number %s, processor %s\n", name,
                serialNumberText(serialNumber, internal, suppliers).c_str(),
                temperatureText("at", celsius).c_str());
    note("machine", "name", name);
    noteUnlessUnknown("machine", "serial_number", serialNumber);
    noteUnlessUnknown("machine", "internal_serial_number", internal);
    noteUnlessUnknown("machine", "supplier_serial_number", suppliers);
    noteUnlessUnknown("machine", "celsius", celsius);
    printLibrary();
}

void printStart() {
    const bool isFirst = kv_isFirstModelLoad() != 0;
    std::printf("start       %s\n", isFirst ? "model load: this model has not run since the machine started"
                                            : "model run: this model is being restarted");
    note("start", "model_load", isFirst);
    printBoard("board_1", control_loop_P.setup1, "as the first board of its kind");
    printBoard("board_2", control_loop_P.setup2, "as the second of two variants");
    printTrigger(control_loop_DW.timer);
    std::printf("samples     by DMA to 0x%08llx\n",
                static_cast<unsigned long long>(control_loop_DW.stream.physicalAddress));
    note("samples", "dma_address", static_cast<std::int64_t>(control_loop_DW.stream.physicalAddress));
    printController();
}

void printOutcome() {
    if (control_loop_DW.steps > 0) {
        printMonitor(control_loop_DW.monitor.report);
        printControl();
    }
    const bool empty = boardOf(control_loop_P.setup1) == nullptr && boardOf(control_loop_P.setup2) == nullptr;
    std::printf("registry    %s\n", empty ? "empty again" : "still holds a module");
    note("registry", "empty", empty);
}

std::vector<brevane::Fact> facts() {
    return notedFacts;
}

void writeRecord(std::ostream& out) {
    out << std::setprecision(kRecordDigits) << "time_s,set_point_V,response_V,output_V\n";
    for (const RecordedStep& step : recordedSteps()) {
        out << step.time << ',' << step.setPoint << ',' << step.response << ',' << step.output << '\n';
    }
}
