/*
 * Setup block of an analog board: finds and maps the board, and registers it for the channel blocks.
 *
 * Block functions return 0. Where they return -1 the block's error holds the text for the model.
 */
#ifndef ANALOG_SETUP_H
#define ANALOG_SETUP_H

#include <stddef.h>

#include <kv/diagnostics.h>

#include "analog_board.h"

typedef struct AnalogSetupParameters {
    const char* blockName;
    int moduleId;              /* identifies the board within the model; channel blocks name it too */
    const uint16_t* deviceIds; /* the variants that will do */
    size_t nDeviceIds;
    int position; /* 1 takes the first board, 2 the second ... */
    int bus;      /* used where slot is not negative */
    int slot;     /* -1 searches by position */
} AnalogSetupParameters;

int analogSetup_start(const AnalogSetupParameters* parameters, KvError* error);

/* Switches the outputs to 0 V, lets them float and removes the board from the registry. */
void analogSetup_terminate(const AnalogSetupParameters* parameters);

#endif
