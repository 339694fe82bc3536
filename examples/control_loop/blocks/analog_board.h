/*
 * The analog board as its driver blocks know it: identities, registers and the state that the blocks share.
 *
 * The setup block owns the state. It stores it as the custom data of the board's module, where the input and
 * output blocks of the same board find it by the module's id.
 */
#ifndef ANALOG_BOARD_H
#define ANALOG_BOARD_H

#include <stdint.h>

#include <kv/pci.h>

/* Registry types of this driver: one module for each board, one block for each channel in use. */
enum { ANALOG_MODULE_TYPE = 1 };
enum { ANALOG_INPUT_BLOCK = 0, ANALOG_OUTPUT_BLOCK = 1 };

enum { ANALOG_CHANNELS = 8 };

enum AnalogIdentity {
    ANALOG_VENDOR = 0x1b5a,
    ANALOG_VOLTAGE_BOARD = 0x0a18, /* outputs in volts */
    ANALOG_CURRENT_BOARD = 0x0a28  /* the same with current outputs */
};

/* Registers in BAR 0, 32 bits each, by their offset in bytes. */
enum AnalogRegister {
    ANALOG_IDENTITY = 0x00,
    ANALOG_SCRATCH = 0x04,
    ANALOG_STATUS = 0x08,
    ANALOG_CONTROL = 0x0C,
    ANALOG_INPUT_0 = 0x10,
    ANALOG_OUTPUT_0 = 0x30,
    ANALOG_TIMER_PERIOD = 0x50, /* ns between interrupts, 0 stops the timer */
    ANALOG_TIMER_TICKS = 0x54,  /* since the timer was started */
    ANALOG_TIMER_SERVED = 0x58, /* the tick that was served: the interrupt is held while it is not the last */
    ANALOG_INTERRUPTS = 0x5C,   /* enabled ones */
    ANALOG_TICK_TIME_LOW = 0x60, /* when the last tick was due, ns of CLOCK_MONOTONIC */
    ANALOG_TICK_TIME_HIGH = 0x64,
    ANALOG_STREAM_ADDRESS_LOW = 0x68, /* physical address of the buffer for the samples of each tick */
    ANALOG_STREAM_ADDRESS_HIGH = 0x6C,
    ANALOG_STREAM_FRAMES = 0x70 /* room in the buffer, 0 stops the stream */
};

enum { ANALOG_STATUS_READY = 0x1, ANALOG_STATUS_STREAM_FAULT = 0x4 };
enum { ANALOG_INTERRUPT_TIMER = 0x1 };
enum { ANALOG_CONTROL_CONVERT = 0x1, ANALOG_CONTROL_DRIVE_OUTPUTS = 0x2 };

/* Full scale of inputs and outputs: 32768 stands for 10 V. */
#define ANALOG_COUNTS_PER_VOLT 3276.8

typedef struct AnalogBoard {
    kv_PCIDevice pci;
    volatile uint32_t* registers;
} AnalogBoard;

static inline uint32_t analogBoard_read(const AnalogBoard* board, unsigned offset) {
    return board->registers[offset / sizeof(uint32_t)];
}

static inline void analogBoard_write(const AnalogBoard* board, unsigned offset, uint32_t value) {
    board->registers[offset / sizeof(uint32_t)] = value;
}

/* Waits until the board has all that was written to it: before what follows by another way than its
 * registers. */
static inline void analogBoard_awaitWrites(const AnalogBoard* board) {
    (void)analogBoard_read(board, ANALOG_IDENTITY);
#ifdef __aarch64__
    __asm__ volatile("dsb ld" ::: "memory");
#endif
}

/* Memory that was written before is there for the board when it sees a register that is written after. */
static inline void analogBoard_orderMemory(void) {
#ifdef __aarch64__
    __asm__ volatile("dmb osh" ::: "memory");
#else
    __asm__ volatile("" ::: "memory"); /* x86-64 keeps this order, the compiler need not */
#endif
}

#endif
