#include "board_monitor.h"

#include <stdatomic.h>
#include <stdlib.h>

#include <kv/registry.h>
#include <kv/target.h>
#include <kv/threads.h>

#define MODULE_NAME "Board Monitor"
#define PERIOD_S 0.1

/* Shared with the thread. The report is the thread's until it has ended. */
struct BoardMonitorWorker {
    const AnalogBoard* board;
    int priority;
    void* thread;
    void* ended; /* semaphore, posted by the thread as the last thing it does */
    atomic_bool stop;
    BoardMonitorReport report;
};

static void takeReading(const AnalogBoard* board, BoardMonitorReport* report) {
    const int temperature = kv_getCpuTemperature();
    if (report->readings == 0 || temperature > report->hottest) {
        report->hottest = temperature;
    }
    if ((analogBoard_read(board, ANALOG_STATUS) & ANALOG_STATUS_READY) == 0) {
        ++report->faults;
    }
    ++report->readings;
}

static void* monitor(void* argument) {
    struct BoardMonitorWorker* worker = argument;
    BoardMonitorReport* report = &worker->report;
    report->ran = true;
    report->hottest = -1;
    report->cpu = kv_pickNextAsyncCpu();
    report->pinned = report->cpu >= 0 && kv_pinThisThreadToCpu(report->cpu) == 0;
    kv_setPidPriority(0, worker->priority); /* 0 is the calling thread; a failure is logged */

    while (kv_waitForBaseRateSync() != 0) {
        /* held until the model starts, or is stopped before */
    }
    while (!atomic_load(&worker->stop)) {
        takeReading(worker->board, report);
        kv_wait_s(PERIOD_S);
    }
    kv_releaseSemaphore(worker->ended);
    return NULL;
}

static void freeWorker(BoardMonitor* block) {
    kv_destroySemaphore(block->worker->ended);
    free(block->worker);
    block->worker = NULL;
}

int boardMonitor_start(BoardMonitor* block, KvError* error) {
    kvError_setPreamble(error, MODULE_NAME, block->blockName, block->moduleId);
    const AnalogBoard* board = kv_module_get_custom_data(ANALOG_MODULE_TYPE, (uint32_t)block->moduleId);
    if (board == NULL) {
        kvError_setMsg(error, "there is no setup block with this ID");
        return -1;
    }
    struct BoardMonitorWorker* worker = calloc(1, sizeof *worker);
    if (worker == NULL || (worker->ended = kv_createSemaphore(0)) == NULL) {
        kvError_setMsg(error, "out of memory");
        free(worker);
        return -1;
    }
    worker->board = board;
    worker->priority = block->priority;
    block->worker = worker;
    worker->thread = kv_createThread(monitor, worker);
    if (worker->thread == NULL) {
        freeWorker(block); /* the library has logged why; the model runs without its monitor */
    }
    return 0;
}

void boardMonitor_terminate(BoardMonitor* block) {
    if (block->worker == NULL) {
        return;
    }
    /* A model that never started never raised the base rate. */
    kv_signalBaseRateSync();
    /* Let the thread end where it holds nothing, rather than cancel it wherever it is. */
    atomic_store(&block->worker->stop, true);
    kv_waitForSemaphore(block->worker->ended);
    kv_destroyThread(block->worker->thread);
    block->report = block->worker->report;
    freeWorker(block);
}
