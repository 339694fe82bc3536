/*
 * The model analog_loop, laid out as the code generator lays out a model: parameters (P), signals (B) and
 * block work (DW) in one structure each, and four entry points.
 *
 * A low-pass filter follows an input of the first board; a sine is laid over it and drives an output of that
 * board, and inverted one of the second board. A monitor watches the first board beside the model.
 */
#ifndef ANALOG_LOOP_H
#define ANALOG_LOOP_H

#include <stdint.h>

#include "blocks/analog_channel.h"
#include "blocks/analog_setup.h"
#include "blocks/board_monitor.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    double stepSize;   /* s */
    double filterTime; /* s, time constant of the low-pass filter */
    double sineVolts;  /* amplitude */
    double sineHertz;
    AnalogSetupParameters setup1;
    AnalogSetupParameters setup2;
} P_analog_loop_T;

typedef struct {
    double inputVolts;
    double filteredVolts;
    double outputVolts;
    double minOutputVolts;
    double maxOutputVolts;
} B_analog_loop_T;

typedef struct {
    uint32_t steps;
    AnalogChannel input1;
    AnalogChannel output1;
    AnalogChannel output2;
    BoardMonitor monitor;
} DW_analog_loop_T;

extern const P_analog_loop_T analog_loop_P;
extern B_analog_loop_T analog_loop_B;
extern DW_analog_loop_T analog_loop_DW;

void analog_loop_initialize(void);
void analog_loop_step(void);
void analog_loop_terminate(void);

/* Text of the block error that stops the model, null while there is none. */
const char* analog_loop_errorStatus(void);

#ifdef __cplusplus
}
#endif

#endif
