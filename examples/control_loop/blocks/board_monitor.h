/*
 * Monitor block: a worker thread that watches a board and the processor ten times a second, beside the model.
 *
 * The thread is held until the base rate starts. Where it cannot be had, for want of real-time rights, the
 * model runs without it. Start returns 0; where it returns -1 the error holds the text for the model.
 */
#ifndef BOARD_MONITOR_H
#define BOARD_MONITOR_H

#include <stdbool.h>

#include <kv/diagnostics.h>

#include "analog_board.h"

/* What the thread did. Valid once the block has terminated. */
typedef struct BoardMonitorReport {
    bool ran;
    int cpu; /* the one handed out to the thread, -1 where the machine has none to spare */
    bool pinned;
    unsigned readings;
    unsigned faults; /* readings at which the board's converters were not ready */
    int hottest;     /* degrees Celsius; -1 where unknown */
} BoardMonitorReport;

typedef struct BoardMonitor {
    const char* blockName;
    int moduleId;                      /* of the board's setup block */
    int priority;                      /* of the thread, SCHED_FIFO */
    struct BoardMonitorWorker* worker; /* null while it does not run */
    BoardMonitorReport report;
} BoardMonitor;

int boardMonitor_start(BoardMonitor* block, KvError* error);
void boardMonitor_terminate(BoardMonitor* block);

#endif
