#include "serial/kv_serial_tables.h"

#include <algorithm>
#include <array>
#include <functional>
#include <span>

namespace kv::serial {

namespace {

constexpr std::array<uint32_t, kPorts> kBirchMachine = {0x3f8, 0x2f8, 0x3e8, 0x2e8, 0x2f0, 0x2e0};
constexpr std::array<uint32_t, kPorts> kRamblerVMachine = {0x3f8, 0x2f8, 0x3e8, 0x2e8, 0x238, 0x338};
constexpr std::array<uint32_t, kPorts> kLarchMachine = {0x3f8, 0x2f8, 0x240, 0x248, 0x250, 0x258};
constexpr std::array<uint32_t, 2> kOliveMachine = {0xff000000, 0xff010000};
constexpr std::array<uint32_t, kPorts> kDefaultMachine = {0x3f8, 0x2f8, 0x220, 0x228, 0x238, 0x338};

std::span<const uint32_t> baseAddresses(kv_TargetType type) {
    switch (type) {
        case Birch:
            return kBirchMachine;
        case RamblerV2:
        case RamblerV3:
            return kRamblerVMachine;
        case Larch:
            return kLarchMachine;
        case Olive:
            return kOliveMachine;
        case NonKelvaro:
            return {};
        default:
            return kDefaultMachine;
    }
}

constexpr std::array<OnboardPort, 2> kOnboardPorts = {{
    {"/dev/ttyPS0", "SERIAL0_TX_EN", 14, "systemctl stop serial-getty@ttyPS0"},
    {"/dev/ttyPS1", "SERIAL1_TX_EN", 7, nullptr},
}};

constexpr std::array<TransceiverLines, 2> kTransceiverLines = {{
    {.rs485 = 13, .halfDuplex = 12, .termination = 11},
    {.rs485 = 8, .halfDuplex = 10, .termination = 9},
}};

constexpr std::array<ModeValues, 3> kModeValues = {{
    {.rs485 = 0, .halfDuplex = 0},
    {.rs485 = 1, .halfDuplex = 1},
    {.rs485 = 1, .halfDuplex = 0},
}};

constexpr std::array<speed_t, 15> kExtendedBaudrates = {B57600,   B115200,  B230400,  B460800,  B500000,
                                                        B576000,  B921600,  B1000000, B1152000, B1500000,
                                                        B2000000, B2500000, B3000000, B3500000, B4000000};
static_assert(std::ranges::adjacent_find(kExtendedBaudrates, std::ranges::greater_equal{}) ==
                  kExtendedBaudrates.end(),
              "it is searched by bisection");
// Models were built with these codes. A C library whose codes are the rates themselves needs a table of its
// own.
static_assert(B0 == 0 && B38400 == 15 && B57600 == 0x1001 && B4000000 == 0x100F);

constexpr std::array<uint32_t, 4> kDataBits = {CS5, CS6, CS7, CS8};

struct ParityFlags {
    uint32_t control;
    uint32_t input;
};
constexpr std::array<ParityFlags, 5> kParity = {{
    {0, 0},                             // None
    {PARENB, INPCK},                    // Even
    {PARENB | PARODD, INPCK},           // Odd
    {CMSPAR | PARENB | PARODD, INPCK},  // Mark
    {CMSPAR | PARENB, INPCK},           // Space
}};

/** An entry of a table whose first entry has the number 1; null for a number that is outside. */
template <typename Table>
const auto* entryOf(const Table& table, int number) {
    const bool isInside = number >= 1 && static_cast<std::size_t>(number) <= table.size();
    return isInside ? &table[static_cast<std::size_t>(number) - 1] : nullptr;
}

}  // namespace

std::optional<uint32_t> baseAddress(kv_TargetType type, int port) {
    const uint32_t* const address = entryOf(baseAddresses(type), port);
    return address == nullptr ? std::nullopt : std::optional(*address);
}

const OnboardPort* findOnboardPort(std::string_view node) {
    const auto port = std::ranges::find(kOnboardPorts, node, &OnboardPort::node);
    return port == kOnboardPorts.end() ? nullptr : &*port;
}

const TransceiverLines* transceiverLines(int port) {
    return entryOf(kTransceiverLines, port);
}

const ModeValues* modeValues(int mode) {
    return entryOf(kModeValues, mode);
}

bool isExtendedBaudrate(speed_t baudrate) {
    return std::ranges::binary_search(kExtendedBaudrates, baudrate);
}

std::optional<LineFlags> lineFlags(int dataBits, parity_bits parity, int stopBits, int ctsMode) {
    const ParityFlags* const parityFlags = entryOf(kParity, static_cast<int>(parity));
    if (parityFlags == nullptr) {
        return std::nullopt;
    }
    const uint32_t* const dataFlags = entryOf(kDataBits, dataBits);
    return LineFlags{.input = parityFlags->input,
                     .output = ONLCR,
                     .control = (dataFlags == nullptr ? CS8 : *dataFlags) | (stopBits == 2 ? CSTOPB : 0) |
                                parityFlags->control | (ctsMode != 0 ? CRTSCTS : CLOCAL) | CREAD,
                     .local = ECHOE | ECHOK | ECHOCTL | ECHOKE};
}

}  // namespace kv::serial
