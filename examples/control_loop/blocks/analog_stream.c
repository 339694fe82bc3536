#include "analog_stream.h"

#include <assert.h>
#include <stdatomic.h>
#include <string.h>

#include <kv/memory.h>
#include <kv/registry.h>

#define MODULE_NAME "Analog Stream"

enum { FRAMES = 64 };

/* As the board writes it; the tick comes last. */
typedef struct AnalogFrame {
    _Atomic uint32_t tick;
    uint32_t reserved;
    uint64_t timeNs;
    int32_t inputs[ANALOG_CHANNELS];
    uint8_t padding[16];
} AnalogFrame;
static_assert(sizeof(AnalogFrame) == 64, "the board writes frames of 64 bytes");

enum { BUFFER_BYTES = FRAMES * sizeof(AnalogFrame) };

int analogStream_start(AnalogStream* block, KvError* error) {
    kvError_setPreamble(error, MODULE_NAME, block->blockName, block->moduleId);
    const AnalogBoard* board = kv_module_get_custom_data(ANALOG_MODULE_TYPE, (uint32_t)block->moduleId);
    if (board == NULL) {
        kvError_setMsg(error, "there is no setup block with this ID");
        return -1;
    }
    block->frames = kv_allocPhysicalMemory_v2(BUFFER_BYTES, &block->physicalAddress);
    if (block->frames == NULL) {
        kvError_setMsg(error, "no memory that the board can write to");
        return -1;
    }
    memset(block->frames, 0, BUFFER_BYTES);
    block->board = board;
    analogBoard_write(board, ANALOG_STREAM_FRAMES, 0); /* a run that was killed may have left it going */
    analogBoard_write(board, ANALOG_STREAM_ADDRESS_LOW, (uint32_t)block->physicalAddress);
    analogBoard_write(board, ANALOG_STREAM_ADDRESS_HIGH, (uint32_t)((uint64_t)block->physicalAddress >> 32));
    analogBoard_orderMemory(); /* no late zero hits a frame */
    analogBoard_write(board, ANALOG_STREAM_FRAMES, FRAMES);
    return 0;
}

void analogStream_terminate(AnalogStream* block) {
    if (block->board == NULL) {
        return;
    }
    analogBoard_write(block->board, ANALOG_STREAM_FRAMES, 0);
    analogBoard_awaitWrites(block->board); /* nothing is written to memory that is free */
    kv_freePhysicalMemory(block->frames);
    block->frames = NULL;
    block->board = NULL;
}

bool analogStream_read(AnalogStream* block, uint32_t tick, unsigned channel, double* volts) {
    const AnalogFrame* frame = &block->frames[tick % FRAMES];
    if (atomic_load_explicit(&frame->tick, memory_order_acquire) != tick) {
        ++block->lost;
        return false;
    }
    *volts = frame->inputs[channel] / ANALOG_COUNTS_PER_VOLT;
    return true;
}
