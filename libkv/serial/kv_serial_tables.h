#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include <kv/serial.h>
#include <kv/target.h>

#include "serial/kv_serial_custom_rate.h"

namespace kv::serial {

/** Onboard ports of the best equipped target machine. */
constexpr int kPorts = 6;

/** @return the address of a port's UART; empty for a port that the machine does not have */
std::optional<uint32_t> baseAddress(kv_TargetType type, int port);

/** What belongs to an onboard port beside its UART. */
struct OnboardPort {
    const char* node;
    const char* transmitLine; /**< name of the GPIO line that enables the transmitter */
    unsigned secondLine;      /**< offset of the line that is driven low with it, on the same chip */
    /** What stops the console that a login waits on; null where there is none. */
    const char* stopConsole;
};

/** @return the port of a device node, null for a node that is none */
const OnboardPort* findOnboardPort(std::string_view node);

/** Offsets of the GPIO lines that set a port's transceiver. */
struct TransceiverLines {
    unsigned rs485;
    unsigned halfDuplex;
    unsigned termination;
};

/** @return null for a port without such lines */
const TransceiverLines* transceiverLines(int port);

struct ModeValues {
    int rs485;
    int halfDuplex;
};

/** @return null for what is no mode */
const ModeValues* modeValues(int mode);

/** Whether a baud rate is one of the speed codes from B57600 to B4000000. */
bool isExtendedBaudrate(speed_t baudrate);

/** A line configuration without its speed, see kv_serial_device_config(). Empty for an unknown parity. */
std::optional<LineFlags> lineFlags(int dataBits, parity_bits parity, int stopBits, int ctsMode);

}  // namespace kv::serial
