/*
 * The model control_loop, laid out as the code generator lays out a model: parameters (P), signals (B) and
 * block work (DW) in one structure each, and entry points.
 *
 * A PI controller holds the plant between output 0 and input 0 of the first board at a set point, which
 * alternates between the level on input 3 and a part of it. The board's timer interrupt sets the pace. The
 * controller's integrator is kept in persistent memory, so that a restarted model goes on from where it was.
 * An output of the second board shows the inverted control signal, and a monitor watches the first board
 * beside the model.
 */
#ifndef CONTROL_LOOP_H
#define CONTROL_LOOP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "blocks/analog_channel.h"
#include "blocks/analog_setup.h"
#include "blocks/analog_stream.h"
#include "blocks/analog_timer.h"
#include "blocks/board_monitor.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    double stepSize;         /* s */
    double proportionalGain; /* V/V */
    double integralTime;     /* s */
    double maxOutput;        /* V, in both directions */
    double holdTime;         /* s, between two changes of the set point */
    double lowShare;         /* of the level, for the lower set point */
    AnalogSetupParameters setup1;
    AnalogSetupParameters setup2;
} P_control_loop_T;

typedef struct {
    double level; /* V, like all */
    double setPoint;
    double response;
    double output;
} B_control_loop_T;

/* What outlives the process. */
typedef struct {
    double integrator; /* V */
    uint32_t runs;     /* of this model, the current one included */
} ControllerState;

/* One row for each step, until the room is used up. */
typedef struct {
    double time; /* s, when the step was due, after the first one */
    float setPoint;
    float response;
    float output;
} RecordedStep;

enum { MAX_RECORDED_STEPS = 60000 };

typedef struct {
    uint32_t steps;
    uint64_t firstDueNs;    /* when the first step was due, CLOCK_MONOTONIC */
    uint32_t holds;         /* times that the set point was held before the current one */
    double startIntegrator; /* V, as this run found it */
    ControllerState* state; /* persistent; null before initialisation */
    AnalogChannel level;
    AnalogChannel drive;
    AnalogChannel mirror;
    AnalogTimer timer;
    AnalogStream stream;
    BoardMonitor monitor;
} DW_control_loop_T;

extern const P_control_loop_T control_loop_P;
extern B_control_loop_T control_loop_B;
extern DW_control_loop_T control_loop_DW;
extern RecordedStep control_loop_record[MAX_RECORDED_STEPS];

void control_loop_initialize(void);
/* Runs once before the first step, on the thread that steps the model. */
void control_loop_start(void);
void control_loop_step(void);
/* Waits for the tick of the board's timer that triggers the next step; false without one. */
bool control_loop_awaitTrigger(int timeoutMs, AnalogTick* tick);
/* Names the device that triggers the steps. Valid until the model is initialised again. */
const char* control_loop_triggerDevice(void);
void control_loop_terminate(void);

/* Text of the block error that stops the model, null while there is none. */
const char* control_loop_errorStatus(void);

#ifdef __cplusplus
}
#endif

#endif
