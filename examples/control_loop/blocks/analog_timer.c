#include "analog_timer.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>

#include <kv/registry.h>
#include <kv/threads.h>

#define MODULE_NAME "Analog Timer"

int analogTimer_start(AnalogTimer* block, KvError* error) {
    kvError_setPreamble(error, MODULE_NAME, block->blockName, block->moduleId);
    AnalogBoard* board = kv_module_get_custom_data(ANALOG_MODULE_TYPE, (uint32_t)block->moduleId);
    if (board == NULL) {
        kvError_setMsg(error, "there is no setup block with this ID");
        return -1;
    }
    if (kv_uio_createInterruptContext(&block->interrupt, &board->pci) != 0) {
        kvError_setMsg(error, "%s", pKvErrorStr);
        return -1;
    }
    block->interrupt->isModelTrigger = true;
    kv_uio_setIrqProps(block->interrupt);
    if (kv_uio_interruptAttach(block->interrupt) != 0) {
        kvError_extractMsg(error, pKvErrorStr);
        kv_uio_interruptDetach(block->interrupt);
        block->interrupt = NULL;
        return -1;
    }
    block->board = board;
    (void)snprintf(block->device, sizeof block->device, "the timer of board %d (/dev/uio%d)", block->moduleId,
                   block->interrupt->uioIndex);
    analogBoard_write(board, ANALOG_TIMER_SERVED, 0);
    analogBoard_write(board, ANALOG_INTERRUPTS, ANALOG_INTERRUPT_TIMER);
    analogBoard_write(board, ANALOG_TIMER_PERIOD, block->periodNs);
    return 0;
}

void analogTimer_pinModel(AnalogTimer* block) {
    block->pinned = kv_pinThreadExclusiveCpu(block->interrupt->irq_cpu_assigned) == 0;
}

static int fail(KvError* error) {
    kvError_setMsg(error, "%s", pKvErrorStr);
    return -1;
}

int analogTimer_wait(AnalogTimer* block, int timeoutMs, AnalogTick* tick, KvError* error) {
    const AnalogBoard* board = block->board;
    analogBoard_write(board, ANALOG_TIMER_SERVED, block->tick);
    analogBoard_awaitWrites(board); /* the line is released before it is let through again */
    if (kv_uio_enableInterrupt(block->interrupt) != 0) {
        return fail(error);
    }
    struct pollfd interrupt = {.fd = block->interrupt->uiofd, .events = POLLIN};
    if (poll(&interrupt, 1, timeoutMs) != 1) {
        return 0;
    }
    const int status = kv_uio_interruptWait(block->interrupt);
    if (status != 0) {
        return status == -EINTR ? 0 : fail(error);
    }
    const uint32_t ticks = analogBoard_read(board, ANALOG_TIMER_TICKS);
    if (ticks == block->tick) {
        return 0; /* another board's, on the same line */
    }
    tick->missed = ticks - block->tick - 1;
    tick->dueNs = (uint64_t)analogBoard_read(board, ANALOG_TICK_TIME_HIGH) << 32 |
                  analogBoard_read(board, ANALOG_TICK_TIME_LOW);
    block->tick = ticks;
    block->dueNs = tick->dueNs;
    return 1;
}

void analogTimer_terminate(AnalogTimer* block) {
    if (block->interrupt == NULL) {
        return;
    }
    analogBoard_write(block->board, ANALOG_TIMER_PERIOD, 0);
    analogBoard_write(block->board, ANALOG_INTERRUPTS, 0);
    analogBoard_awaitWrites(block->board);
    kv_uio_interruptDetach(block->interrupt);
    block->interrupt = NULL;
    block->board = NULL;
}
