#include "active/boards/analog_board.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace kvsim {

namespace {

using std::chrono::nanoseconds;

enum Register : std::uint32_t {
    kStatus = 0x08,
    kControl = 0x0C,
    kInputs = 0x10,
    kOutputs = 0x30,
    kTimerPeriod = 0x50,
    kTimerTicks = 0x54,
    kTimerServed = 0x58,
    kInterruptEnable = 0x5C,
    kTickTime = 0x60,       // 64 bits
    kStreamAddress = 0x68,  // 64 bits
    kStreamFrames = 0x70,
    kTimerMissed = 0x74
};

enum StatusBit : std::uint32_t { kReady = 1U << 0, kOverrange = 1U << 1, kStreamFault = 1U << 2 };
constexpr unsigned kInRangeShift = 8;
constexpr std::uint32_t kAllChannels = (1U << kAnalogChannels) - 1;
enum ControlBit : std::uint32_t { kConvert = 1U << 0, kDriveOutputs = 1U << 1 };
constexpr std::uint32_t kTimerInterrupt = 1U << 0;

constexpr double kMinCounts = INT16_MIN;
constexpr double kMaxCounts = INT16_MAX;

constexpr nanoseconds kLookPeriod = std::chrono::milliseconds(1);
/** What one event loop for a whole machine keeps up with. */
constexpr nanoseconds kMinPeriod = std::chrono::microseconds(20);

constexpr std::uint32_t inputAt(unsigned channel) {
    return kInputs + channel * 4;
}

constexpr std::uint32_t outputAt(unsigned channel) {
    return kOutputs + channel * 4;
}

std::byte* registersOf(BoardSlot& slot) {
    std::byte* const registers = slot.bar(0);
    if (registers == nullptr) {
        throw std::runtime_error("an analog board can't reach its registers");
    }
    return registers;
}

std::uint64_t nanosecondsOf(AnalogBoard::Time time) {
    return static_cast<std::uint64_t>(nanoseconds(time.time_since_epoch()).count());
}

}  // namespace

AnalogBoard::AnalogBoard(const PciFunction& function, BoardSlot& slot)
    : slot_(slot),
      registers_(registersOf(slot)),
      readyBit_(registers_.read(kStatus) & kReady),
      followed_(Timer::Clock::now()),
      timer_(slot.loop(), [this](Time due, std::uint64_t periods) { expire(due, periods); }) {
    for (unsigned channel = 0; channel < kAnalogChannels; ++channel) {
        terminals_[channel] = registers_.read<std::int32_t>(inputAt(channel));
    }
    for (const Plant& plant : function.plants) {
        connections_.push_back(
            {.output = plant.output,
             .input = plant.input,
             .lag = FirstOrderLag(plant.gain, plant.timeConstantSeconds, terminals_[plant.input])});
    }
    timer_.start(kLookPeriod);
}

/* ---- Time ---- */

void AnalogBoard::expire(Time due, std::uint64_t periods) {
    const auto periodNs = registers_.read(kTimerPeriod);
    const bool isConversionAsked = (registers_.read(kControl) & kConvert) != 0;
    if (periodNs_ != 0 && periodNs != 0) {
        tick(due, periods);
    } else if (isConversionAsked) {
        convert(due);
        writeStatus();
    } else {
        followOutputs(due);
    }
    if (isConversionAsked) {
        registers_.clearBits(kControl, kConvert);
    }
    if (periodNs != periodNs_) {
        setPeriod(periodNs);
    }
}

void AnalogBoard::tick(Time due, std::uint64_t periods) {
    acknowledge();
    const bool interrupts = (registers_.read(kInterruptEnable) & kTimerInterrupt) != 0;
    if (isTickUnserved_ || interrupts) {
        missed_ += static_cast<std::uint32_t>(isTickUnserved_ ? periods : periods - 1);
        isTickUnserved_ = true;
    }
    ticks_ += static_cast<std::uint32_t>(periods);

    const auto frames = registers_.read(kStreamFrames);
    const PhysicalMemory::Span stream = findStream(frames);
    // What a program can see of periods that passed while the process was held up: as much as the stream
    // holds.
    auto late = stream ? std::min<std::uint64_t>(periods, frames) : 1;
    while (late-- > 0) {
        const Time time = due - timer_.period() * static_cast<std::int64_t>(late);
        convert(time);
        if (stream) {
            const auto number = ticks_ - static_cast<std::uint32_t>(late);
            writeFrame(reinterpret_cast<AnalogFrame*>(stream.data())[number % frames], number, time);
        }
    }
    writeStatus();
    registers_.write(kTimerMissed, missed_);
    registers_.write(kTickTime, nanosecondsOf(due));
    registers_.write(kTimerTicks, ticks_);  // last: who sees the tick sees what belongs to it
    updateLine();
}

void AnalogBoard::setPeriod(std::uint32_t periodNs) {
    if (periodNs_ == 0) {
        ticks_ = 0;
        missed_ = 0;
        registers_.write(kTimerMissed, missed_);
        registers_.write(kTimerServed, ticks_);
        registers_.write(kTimerTicks, ticks_);
    }
    if (periodNs == 0) {
        isTickUnserved_ = false;
        updateLine();
    }
    periodNs_ = periodNs;
    timer_.start(periodNs == 0 ? kLookPeriod : std::max(nanoseconds(periodNs), kMinPeriod));
}

/* ---- Converters ---- */

void AnalogBoard::followOutputs(Time now) {
    const bool driven = (registers_.read(kControl) & kDriveOutputs) != 0;
    const Time from = std::exchange(followed_, std::max(followed_, now));
    for (Connection& connection : connections_) {
        const auto output = registers_.read<std::int32_t>(outputAt(connection.output));
        const double driving = driven ? std::clamp<double>(output, kMinCounts, kMaxCounts) : 0;
        connection.lag.advance(driving, followed_ - from);
    }
}

void AnalogBoard::convert(Time now) {
    followOutputs(now);
    for (const Connection& connection : connections_) {
        terminals_[connection.input] = connection.lag.value();
    }
    inRange_ = 0;
    for (unsigned channel = 0; channel < kAnalogChannels; ++channel) {
        const double counts = std::round(terminals_[channel]);
        const double saturated = std::clamp(counts, kMinCounts, kMaxCounts);
        inRange_ |= (counts == saturated ? 1U : 0U) << channel;
        samples_[channel] = static_cast<std::int32_t>(saturated);
        registers_.write(inputAt(channel), samples_[channel]);
    }
}

void AnalogBoard::writeStatus() {
    registers_.write(kStatus, readyBit_ | (inRange_ == kAllChannels ? 0U : kOverrange) |
                                  (isStreamFaulty_ ? kStreamFault : 0U) | inRange_ << kInRangeShift);
}

/* ---- Stream ---- */

PhysicalMemory::Span AnalogBoard::findStream(std::uint32_t frames) {
    isStreamFaulty_ = false;
    if (frames == 0) {
        return {nullptr, nullptr};
    }
    const auto address = registers_.read<std::uint64_t>(kStreamAddress);
    const std::uint64_t sizeBytes = std::uint64_t{frames} * sizeof(AnalogFrame);
    PhysicalMemory::Span stream = slot_.physicalMemory().at(address, sizeBytes);
    isStreamFaulty_ = !stream || reinterpret_cast<std::uintptr_t>(stream.data()) % alignof(AnalogFrame) != 0;
    return isStreamFaulty_ ? PhysicalMemory::Span(nullptr, nullptr) : stream;
}

void AnalogBoard::writeFrame(AnalogFrame& frame, std::uint32_t tick, Time due) const {
    frame.timeNs = nanosecondsOf(due);
    std::ranges::copy(samples_, frame.inputs);
    std::atomic_ref(frame.tick).store(tick, std::memory_order_release);
}

/* ---- Interrupt ---- */

void AnalogBoard::maskInterrupt(std::uint32_t /*fixType*/, std::uint32_t mask) {
    registers_.clearBits(kInterruptEnable, mask);
    updateLine();
}

void AnalogBoard::acknowledge() {
    isTickUnserved_ = isTickUnserved_ && registers_.read(kTimerServed) != ticks_;
}

void AnalogBoard::updateLine() {
    acknowledge();
    const bool held = isTickUnserved_ && (registers_.read(kInterruptEnable) & kTimerInterrupt) != 0;
    if (held != isLineHeld_) {
        isLineHeld_ = held;  // first: the driver masks at once, and comes back here
        slot_.setInterrupt(held);
    }
}

}  // namespace kvsim
