#include <algorithm>
#include <set>

#include "active/boards/analog_board.h"
#include "layout/format.h"

namespace kvsim {

namespace {

constexpr std::uint64_t kRegisterBytes = 4096;
constexpr double kMaxGain = 1000;
constexpr double kMaxTimeConstantSeconds = 1e6;

void checkChannel(const char* what, unsigned channel, Position position) {
    if (channel >= kAnalogChannels) {
        throw DescriptionError(
            format("an analog board has %ss 0 to %u, not %u", what, kAnalogChannels - 1, channel), position);
    }
}

/** Refuses what is no number, too. */
void checkDynamics(const Plant& plant) {
    if (!(plant.gain >= -kMaxGain && plant.gain <= kMaxGain)) {
        throw DescriptionError(
            format("the gain %g of a plant is not in the range %g to %g", plant.gain, -kMaxGain, kMaxGain),
            plant.position);
    }
    if (!(plant.timeConstantSeconds > 0 && plant.timeConstantSeconds <= kMaxTimeConstantSeconds)) {
        throw DescriptionError(format("the time constant %g s of a plant is not above 0 and up to %g s",
                                      plant.timeConstantSeconds, kMaxTimeConstantSeconds),
                               plant.position);
    }
}

}  // namespace

void AnalogBoard::check(const PciFunction& function) {
    const bool hasRegisters = std::ranges::any_of(function.bars, [](const Bar& bar) {
        return bar.index == 0 && bar.space != BarSpace::Io && bar.sizeBytes >= kRegisterBytes;
    });
    if (!hasRegisters) {
        throw DescriptionError(
            format("an analog board has its registers in BAR 0, which is missing or smaller "
                   "than %llu bytes of memory",
                   static_cast<unsigned long long>(kRegisterBytes)),
            function.position);
    }
    std::set<unsigned> inputs;
    for (const Plant& plant : function.plants) {
        checkChannel("output", plant.output, plant.position);
        checkChannel("input", plant.input, plant.position);
        checkDynamics(plant);
        if (!inputs.insert(plant.input).second) {
            throw DescriptionError(format("two plants lead to input %u", plant.input), plant.position);
        }
    }
}

}  // namespace kvsim
