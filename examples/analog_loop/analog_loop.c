#include "analog_loop.h"

#include <math.h>

#include <kv/lifecycle.h>

static const uint16_t voltageBoards[] = {ANALOG_VOLTAGE_BOARD};
static const uint16_t anyBoards[] = {ANALOG_VOLTAGE_BOARD, ANALOG_CURRENT_BOARD};

const P_analog_loop_T analog_loop_P = {
    .stepSize = 0.001,
    .filterTime = 0.1,
    .sineVolts = 2.0,
    .sineHertz = 1.0,
    .setup1 = {.blockName = "analog_loop/Setup 1",
               .moduleId = 1,
               .deviceIds = voltageBoards,
               .nDeviceIds = 1,
               .position = 1,
               .bus = 0,
               .slot = -1},
    .setup2 = {.blockName = "analog_loop/Setup 2",
               .moduleId = 2,
               .deviceIds = anyBoards,
               .nDeviceIds = 2,
               .position = 2,
               .bus = 0,
               .slot = -1},
};

B_analog_loop_T analog_loop_B;

DW_analog_loop_T analog_loop_DW = {
    .input1 = {.blockName = "analog_loop/Level",
               .moduleId = 1,
               .blockType = ANALOG_INPUT_BLOCK,
               .channel = 3},
    .output1 = {.blockName = "analog_loop/Drive",
                .moduleId = 1,
                .blockType = ANALOG_OUTPUT_BLOCK,
                .channel = 0},
    .output2 = {.blockName = "analog_loop/Mirror",
                .moduleId = 2,
                .blockType = ANALOG_OUTPUT_BLOCK,
                .channel = 0},
    .monitor = {.blockName = "analog_loop/Monitor", .moduleId = 1, .priority = 10},
};

static KvError* blockError;
static const char* errorStatus;

/* Starts the blocks in block order; the first that fails ends the model with its error. */
static int startBlocks(void) {
    return analogSetup_start(&analog_loop_P.setup1, blockError) == 0 &&
           analogSetup_start(&analog_loop_P.setup2, blockError) == 0 &&
           analogChannel_start(&analog_loop_DW.input1, blockError) == 0 &&
           analogChannel_start(&analog_loop_DW.output1, blockError) == 0 &&
           analogChannel_start(&analog_loop_DW.output2, blockError) == 0 &&
           boardMonitor_start(&analog_loop_DW.monitor, blockError) == 0;
}

void analog_loop_initialize(void) {
    kv_initModelRun();
    blockError = kvError_new();
    if (!startBlocks()) {
        errorStatus = kvError_getMsg(blockError);
        return;
    }
    analog_loop_B.minOutputVolts = HUGE_VAL;
    analog_loop_B.maxOutputVolts = -HUGE_VAL;
}

void analog_loop_step(void) {
    const P_analog_loop_T* p = &analog_loop_P;
    B_analog_loop_T* b = &analog_loop_B;
    DW_analog_loop_T* dw = &analog_loop_DW;

    b->inputVolts = analogChannel_read(&dw->input1);
    b->filteredVolts += (b->inputVolts - b->filteredVolts) * p->stepSize / p->filterTime;

    const double time = dw->steps * p->stepSize;
    b->outputVolts = b->filteredVolts + p->sineVolts * sin(2.0 * M_PI * p->sineHertz * time);
    analogChannel_write(&dw->output1, b->outputVolts);
    analogChannel_write(&dw->output2, -b->outputVolts);

    b->minOutputVolts = fmin(b->minOutputVolts, b->outputVolts);
    b->maxOutputVolts = fmax(b->maxOutputVolts, b->outputVolts);
    ++dw->steps;
}

void analog_loop_terminate(void) {
    boardMonitor_terminate(&analog_loop_DW.monitor);
    analogChannel_terminate(&analog_loop_DW.output2);
    analogChannel_terminate(&analog_loop_DW.output1);
    analogChannel_terminate(&analog_loop_DW.input1);
    analogSetup_terminate(&analog_loop_P.setup2);
    analogSetup_terminate(&analog_loop_P.setup1);
    kvError_delete(blockError);
    blockError = NULL;
    errorStatus = NULL;
}

const char* analog_loop_errorStatus(void) {
    return errorStatus;
}
