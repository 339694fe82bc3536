/*
 * Timer block: the timer interrupt of an analog board, which sets the pace of the model.
 *
 * The board is bound to the UIO driver, and its interrupt belongs to the model's trigger: it is served on the
 * CPU that the library gives to triggers. Start returns 0; where it returns -1 the error holds the text for
 * the model.
 */
#ifndef ANALOG_TIMER_H
#define ANALOG_TIMER_H

#include <stdbool.h>

#include <kv/diagnostics.h>
#include <kv/soc.h>

#include "analog_board.h"

typedef struct AnalogTimer {
    const char* blockName;
    int moduleId; /* of the board's setup block */
    uint32_t periodNs;
    const AnalogBoard* board;       /* set by start, null before */
    kv_InterruptContext* interrupt; /* likewise */
    char device[48];                /* what the timer is called in messages */
    uint32_t tick;                  /* the one in service */
    uint64_t dueNs;                 /* when that was due, CLOCK_MONOTONIC */
    bool pinned;                    /* whether the model runs on the trigger's CPU alone */
} AnalogTimer;

/* One expiry of the timer. */
typedef struct AnalogTick {
    uint64_t dueNs;  /* CLOCK_MONOTONIC */
    uint32_t missed; /* ticks since the one before that nobody served */
} AnalogTick;

int analogTimer_start(AnalogTimer* block, KvError* error);

/* Takes the calling thread, the model's, to the trigger's CPU; a machine without it lets it run anywhere. */
void analogTimer_pinModel(AnalogTimer* block);

/*
 * Ends the service of the last tick and waits for the next. Returns 1 with a tick; 0 without one, after the
 * time-out, a signal or an interrupt that was not the timer's; -1 with an error where the board has gone.
 */
int analogTimer_wait(AnalogTimer* block, int timeoutMs, AnalogTick* tick, KvError* error);

/* Stops the timer. The board stays with the UIO driver. */
void analogTimer_terminate(AnalogTimer* block);

#endif
