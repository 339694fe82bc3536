/*
 * Input and output blocks of an analog board: one block for one channel, in volts.
 *
 * The setup block of the board must have started. Start returns 0; where it returns -1 the error holds the
 * text for the model.
 */
#ifndef ANALOG_CHANNEL_H
#define ANALOG_CHANNEL_H

#include <kv/diagnostics.h>

#include "analog_board.h"

typedef struct AnalogChannel {
    const char* blockName;
    int moduleId;             /* of the board's setup block */
    uint32_t blockType;       /* ANALOG_INPUT_BLOCK or ANALOG_OUTPUT_BLOCK */
    unsigned channel;         /* 0 to 7 */
    const AnalogBoard* board; /* set by start, null before */
} AnalogChannel;

int analogChannel_start(AnalogChannel* block, KvError* error);
void analogChannel_terminate(AnalogChannel* block);

/* For the step: register access only. */
double analogChannel_read(const AnalogChannel* block);
void analogChannel_write(const AnalogChannel* block, double volts);

#endif
