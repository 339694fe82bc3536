#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "active/boards/board.h"
#include "active/boards/plant.h"
#include "active/boards/registers.h"
#include "active/event_loop.h"

namespace kvsim {

inline constexpr const char* kAnalogBoard = "analog-io";
inline constexpr unsigned kAnalogChannels = 8;

/** One tick's samples, as the board writes them to memory. */
struct AnalogFrame {
    std::uint32_t tick;
    std::uint32_t reserved;
    std::uint64_t timeNs;
    std::int32_t inputs[kAnalogChannels];
    std::uint8_t padding[16];
};
static_assert(sizeof(AnalogFrame) == 64);

/**
 * Eight analog inputs and outputs, plants between them, and a timer that samples, streams and interrupts. The
 * registers are told in machines/ember.yaml.
 */
class AnalogBoard : public Board {
 public:
    using Time = Timer::Clock::time_point;

    /** Throws DescriptionError where the board can't be as described. */
    static void check(const PciFunction& function);

    /** Throws std::runtime_error where the slot has no BAR 0 for it. */
    AnalogBoard(const PciFunction& function, BoardSlot& slot);

    void interruptServed() override { updateLine(); }
    void maskInterrupt(std::uint32_t fixType, std::uint32_t mask) override;

    /**
     * Called by the board's timer, with its parameters: at each tick, and in between, when ticks are stopped,
     * to look at what programs have written.
     */
    void expire(Time due, std::uint64_t periods);

 private:
    struct Connection {
        unsigned output;
        unsigned input;
        FirstOrderLag lag;
    };

    void tick(Time due, std::uint64_t periods);
    void setPeriod(std::uint32_t periodNs);

    void followOutputs(Time now);
    void convert(Time now);
    PhysicalMemory::Span findStream(std::uint32_t frames);
    void writeFrame(AnalogFrame& frame, std::uint32_t tick, Time due) const;
    void writeStatus();

    void acknowledge();
    void updateLine();

    BoardSlot& slot_;
    SharedRegisters registers_;
    std::uint32_t readyBit_;
    std::vector<Connection> connections_;
    Time followed_;  // until when the plants have been computed

    std::array<double, kAnalogChannels> terminals_{};
    std::array<std::int32_t, kAnalogChannels> samples_{};
    std::uint32_t inRange_ = 0;
    bool isStreamFaulty_ = false;

    std::uint32_t periodNs_ = 0;  // as the program wrote it
    std::uint32_t ticks_ = 0;
    std::uint32_t missed_ = 0;
    bool isTickUnserved_ = false;  // of ticks that raised an interrupt
    bool isLineHeld_ = false;
    Timer timer_;
};

}  // namespace kvsim
