#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "active/event_loop.h"
#include "active/physical_memory.h"
#include "kvsim/description.h"

namespace kvsim {

/** What a board reaches of the machine that it sits in. */
class BoardSlot {
 public:
    virtual ~BoardSlot() = default;
    /**
     * Asserts or releases the board's INTx line. While it is asserted, the driver is called whenever the
     * command register lets it through, and masks it.
     */
    virtual void setInterrupt(bool asserted) = 0;
    /** The memory of a BAR, shared with the programs that map it; null where the board has no such BAR. */
    [[nodiscard]] virtual std::byte* bar(unsigned index) = 0;
    [[nodiscard]] virtual PhysicalMemory& physicalMemory() = 0;
    [[nodiscard]] virtual EventLoop& loop() = 0;
};

/** What acts behind a board's registers. Programs write them without a trace: a board looks when it acts. */
class Board {
 public:
    virtual ~Board() = default;
    /** Called before the command register lets the interrupt through: the program has served the board. */
    virtual void interruptServed() = 0;
    /** Called by the driver when it is to mask the interrupt in the board, not in its command register. */
    virtual void maskInterrupt(std::uint32_t fixType, std::uint32_t mask) = 0;
};

/** Makes the board that a function's description names; null where it names none. */
std::unique_ptr<Board> makeBoard(const PciFunction& function, BoardSlot& slot);

/** Throws DescriptionError where a function's description names no board that there is, or can't be one. */
void checkBoard(const PciFunction& function);

}  // namespace kvsim
