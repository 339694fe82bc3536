/*
 * Stream block: the samples of all inputs of an analog board, which the board writes to memory at each tick
 * of its timer.
 *
 * Start it before the timer block and end it after. Start returns 0; where it returns -1 the error holds the
 * text for the model.
 */
#ifndef ANALOG_STREAM_H
#define ANALOG_STREAM_H

#include <stdbool.h>

#include <kv/diagnostics.h>

#include "analog_board.h"

typedef struct AnalogStream {
    const char* blockName;
    int moduleId;               /* of the board's setup block */
    const AnalogBoard* board;   /* set by start, null before */
    struct AnalogFrame* frames; /* the buffer, a ring */
    uintptr_t physicalAddress;  /* where the board finds it */
    uint32_t lost;              /* frames that were not there when they were asked for */
} AnalogStream;

int analogStream_start(AnalogStream* block, KvError* error);
void analogStream_terminate(AnalogStream* block);

/* Reads an input, in volts, as it was at a tick. False, and no value, where the frame is gone already. */
bool analogStream_read(AnalogStream* block, uint32_t tick, unsigned channel, double* volts);

#endif
