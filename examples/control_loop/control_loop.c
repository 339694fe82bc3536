#include "control_loop.h"

#include <math.h>

#include <kv/lifecycle.h>
#include <kv/memory.h>

#define STATE_NAME "control_loop controller"
#define NS_PER_S 1e9

static const uint16_t voltageBoards[] = {ANALOG_VOLTAGE_BOARD};
static const uint16_t anyBoards[] = {ANALOG_VOLTAGE_BOARD, ANALOG_CURRENT_BOARD};

const P_control_loop_T control_loop_P = {
    .stepSize = 0.001,
    .proportionalGain = 3.0,
    .integralTime = 0.05,
    .maxOutput = 10.0,
    .holdTime = 0.5,
    .lowShare = 0.4,
    .setup1 = {.blockName = "control_loop/Setup 1",
               .moduleId = 1,
               .deviceIds = voltageBoards,
               .nDeviceIds = 1,
               .position = 1,
               .bus = 0,
               .slot = -1},
    .setup2 = {.blockName = "control_loop/Setup 2",
               .moduleId = 2,
               .deviceIds = anyBoards,
               .nDeviceIds = 2,
               .position = 2,
               .bus = 0,
               .slot = -1},
};

B_control_loop_T control_loop_B;

DW_control_loop_T control_loop_DW = {
    .level = {.blockName = "control_loop/Level",
              .moduleId = 1,
              .blockType = ANALOG_INPUT_BLOCK,
              .channel = 3},
    .drive = {.blockName = "control_loop/Drive",
              .moduleId = 1,
              .blockType = ANALOG_OUTPUT_BLOCK,
              .channel = 0},
    .mirror = {.blockName = "control_loop/Mirror",
               .moduleId = 2,
               .blockType = ANALOG_OUTPUT_BLOCK,
               .channel = 0},
    .stream = {.blockName = "control_loop/Response", .moduleId = 1},
    .timer = {.blockName = "control_loop/Trigger", .moduleId = 1, .periodNs = 1000000},
    .monitor = {.blockName = "control_loop/Monitor", .moduleId = 1, .priority = 10},
};

RecordedStep control_loop_record[MAX_RECORDED_STEPS];

enum { RESPONSE_CHANNEL = 0 };

static KvError* blockError;
static const char* errorStatus;

/* Starts the blocks in block order; the first that fails ends the model with its error. */
static bool startBlocks(void) {
    DW_control_loop_T* dw = &control_loop_DW;
    return analogSetup_start(&control_loop_P.setup1, blockError) == 0 &&
           analogSetup_start(&control_loop_P.setup2, blockError) == 0 &&
           analogChannel_start(&dw->level, blockError) == 0 &&
           analogChannel_start(&dw->drive, blockError) == 0 &&
           analogChannel_start(&dw->mirror, blockError) == 0 &&
           boardMonitor_start(&dw->monitor, blockError) == 0 &&
           analogStream_start(&dw->stream, blockError) == 0 && analogTimer_start(&dw->timer, blockError) == 0;
}

/* The controller of the run before, or one at rest where this model has not run yet. */
static ControllerState* attachState(void) {
    ControllerState* state = kv_getPersistentMemory(STATE_NAME);
    return state != NULL ? state : kv_allocPersistentMemory(STATE_NAME, sizeof *state);
}

void control_loop_initialize(void) {
    kv_initModelRun();
    blockError = kvError_new();
    if (!startBlocks()) {
        errorStatus = kvError_getMsg(blockError);
        return;
    }
    control_loop_DW.state = attachState();
    if (control_loop_DW.state == NULL) {
        errorStatus = "no persistent memory for the controller's state";
        return;
    }
    ++control_loop_DW.state->runs;
    control_loop_DW.startIntegrator = control_loop_DW.state->integrator;
}

void control_loop_start(void) {
    analogTimer_pinModel(&control_loop_DW.timer);
}

static double clamp(double value, double limit) {
    return fmin(fmax(value, -limit), limit);
}

/* The level and a share of it take turns, each held for a while, by the clock. */
static double nextSetPoint(uint64_t elapsedNs, double level, double setPoint) {
    DW_control_loop_T* dw = &control_loop_DW;
    const uint32_t holds = (uint32_t)(elapsedNs / (uint64_t)llround(control_loop_P.holdTime * NS_PER_S));
    if (holds == dw->holds && dw->steps > 0) {
        return setPoint;
    }
    dw->holds = holds;
    return holds % 2 == 0 ? level : level * control_loop_P.lowShare;
}

/* Where the output is at its limit the integrator rests, so that it need not be unwound afterwards. */
static double control(double error, double* integrator) {
    const P_control_loop_T* p = &control_loop_P;
    const double unlimited = p->proportionalGain * error + *integrator;
    const double output = clamp(unlimited, p->maxOutput);
    if (output == unlimited) {
        *integrator += p->proportionalGain * error * p->stepSize / p->integralTime;
    }
    return output;
}

void control_loop_step(void) {
    B_control_loop_T* b = &control_loop_B;
    DW_control_loop_T* dw = &control_loop_DW;

    if (dw->steps == 0) {
        dw->firstDueNs = dw->timer.dueNs;
    }
    const uint64_t elapsedNs = dw->timer.dueNs - dw->firstDueNs;
    b->level = analogChannel_read(&dw->level);
    b->setPoint = nextSetPoint(elapsedNs, b->level, b->setPoint);
    /* Where the samples are lost, the response of the step before stands. */
    (void)analogStream_read(&dw->stream, dw->timer.tick, RESPONSE_CHANNEL, &b->response);
    b->output = control(b->setPoint - b->response, &dw->state->integrator);
    analogChannel_write(&dw->drive, b->output);
    analogChannel_write(&dw->mirror, -b->output);

    if (dw->steps < MAX_RECORDED_STEPS) {
        control_loop_record[dw->steps] = (RecordedStep){(double)elapsedNs / NS_PER_S, (float)b->setPoint,
                                                        (float)b->response, (float)b->output};
    }
    ++dw->steps;
}

bool control_loop_awaitTrigger(int timeoutMs, AnalogTick* tick) {
    const int status = analogTimer_wait(&control_loop_DW.timer, timeoutMs, tick, blockError);
    if (status < 0) {
        errorStatus = kvError_getMsg(blockError);
    }
    return status > 0;
}

const char* control_loop_triggerDevice(void) {
    return control_loop_DW.timer.device;
}

void control_loop_terminate(void) {
    DW_control_loop_T* dw = &control_loop_DW;
    analogTimer_terminate(&dw->timer);
    analogStream_terminate(&dw->stream);
    boardMonitor_terminate(&dw->monitor);
    analogChannel_terminate(&dw->mirror);
    analogChannel_terminate(&dw->drive);
    analogChannel_terminate(&dw->level);
    analogSetup_terminate(&control_loop_P.setup2);
    analogSetup_terminate(&control_loop_P.setup1);
    kvError_delete(blockError);
    blockError = NULL;
    errorStatus = NULL;
}

const char* control_loop_errorStatus(void) {
    return errorStatus;
}
