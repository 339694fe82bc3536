#pragma once

#include <string>

#include <kv/target.h>

namespace kv::serial {

/** Opens an onboard port of a machine of the given family. @return as kv_serial_port_open() */
int openPort(kv_TargetType type, int port, int flags);

/** @return the descriptor of an open port; -1 for one that is closed or does not exist */
int descriptorOf(int port);

/** The chip that carries the onboard ports' GPIO lines. Empty until an opening has found it. */
const std::string& gpioChipName();

/** @param error  of a step with a port's GPIO lines. @return whether it is 0; any other is logged */
bool isAvailable(int port, const std::string& chip, int error);

}  // namespace kv::serial
