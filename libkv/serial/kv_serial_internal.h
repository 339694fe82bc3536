#pragma once

#include <initializer_list>
#include <string>

#include <kv/target.h>

#include "serial/kv_serial_gpio.h"

namespace kv::serial {

/** Opens an onboard port of a machine of the given family. @return as kv_serial_port_open() */
int openPort(kv_TargetType type, int port, int flags);

/** @return the descriptor of an open port; -1 for one that is closed or does not exist */
int descriptorOf(int port);

/** The chip that carries the onboard ports' GPIO lines. Empty until an opening has found it. */
const std::string& gpioChipName();

/** Drives a port's GPIO lines; logs where that is not possible. @return 0 or -1 */
int driveLines(int port, const std::string& chip, std::initializer_list<GpioValue> values);

}  // namespace kv::serial
