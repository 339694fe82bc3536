/**
 * @file
 * Serial ports: finding a port's device node by where its hardware is, and the onboard ports of the target.
 *
 * Device nodes are found through the device database of the system (libsystemd's sd-device). An onboard port
 * is numbered from 1 to 6, as it is labelled; which of them there are depends on the target machine, and this
 * one has two. Their transceivers are switched through GPIO lines (libgpiod), which are held for the duration
 * of a call only: the hardware keeps their values.
 *
 * Nothing is locked: one thread opens ports, whichever they are, and one thread at a time uses an open port.
 * All functions block on system calls. Reasons of failures are logged at kv_error unless a function says
 * otherwise.
 * A function that needs memory where it is exhausted fails.
 */
#ifndef KV_SERIAL_H
#define KV_SERIAL_H

#include <stddef.h>
#include <stdint.h>
#include <termios.h>

#include <kv/export.h>
#include <kv/pci.h>

KV_BEGIN_DECLS

/**
 * @name Discovery
 * @{
 */

/**
 * Finds a port by the address of its UART: the tty whose attribute "iomem_base" is that address, as in
 * 0xFF000000. Logs nothing.
 *
 * @param outStr     receives the path of the device node, such as /dev/ttyPS0; written on success only
 * @param maxLength  size of @p outStr, the terminator included
 * @return 0; -1 when there is no such port, it has no node, or the path does not fit
 */
KV_EXPORT int kv_findSerialDeviceByPort(uint32_t addr, char* outStr, size_t maxLength);

/**
 * Finds a port of a serial card. Logs nothing.
 *
 * The ports of a card are ordered by the names of their device nodes, in which digits count as numbers: ttyS2
 * comes before ttyS10. Throws std::out_of_range when a number in a name is above INT_MAX.
 *
 * @param pciInfo    only bus and slot are used, with function 0
 * @param port       position among the card's ports, from 0
 * @param outStr     as above
 * @param maxLength  as above
 * @return 0; -1 when there is no such board, -2 when the device database cannot be searched, -3 when the
 * board has no such port, -4 when a port of the board has no device node, -5 when the path does not fit
 */
KV_EXPORT int kv_findSerialDeviceByPci(kv_PCIDevice* pciInfo, int port, char* outStr, size_t maxLength);

/** @} */

/**
 * @name Onboard ports
 *
 * A port is open from the first call that needs it until one that closes it. The functions that open a port
 * take the open descriptor where there is one, and then touch neither GPIO lines nor flags. Opening also
 *
 * - stops the login console of port 1 (`systemctl stop serial-getty@ttyPS0`; systemctl is found through PATH,
 *   so start models with a PATH of the system's own folders),
 * - lets every user open the device node, with root rights where the process may have them,
 * - enables the port's transmitter, and drives line 14 (port 1) or 7 (port 2) of the same GPIO chip low.
 *
 * A port that was set up with hardware flow control waits there for its far end's carrier, as open(2) does
 * without O_NONBLOCK. kv_serial_device_open() does not wait.
 *
 * In order: kv_serial_device_config(), which leaves the port closed, kv_serial_device_open(),
 * kv_serial_device_set_mode() and kv_serial_device_set_termination(), then read(2) and write(2) on the
 * descriptor, kv_serial_device_close().
 * @{
 */

/** Parity of a port. The values never change. */
typedef enum parity_bits
#ifdef __cplusplus
    : uint32_t
#endif
{ None = 1,
  Even = 2,
  Odd = 3,
  Mark = 4,
  Space = 5 } parity_bits;

/**
 * Opens a port.
 *
 * The device node is opened with root rights, where the process may have them, by kv_openAsRoot().
 *
 * @param flags  flags of open(2), which gets these and no others: without O_CLOEXEC, programs that the
 *               process starts inherit the descriptor; must not ask for creation
 * @return the descriptor, which the library keeps and only its functions close; -1 when there is no such
 *         port, or its GPIO lines or device cannot be opened
 */
KV_EXPORT int kv_serial_port_open(int port, int flags);

/** Closes a port. One that is not open, does not exist, or has descriptor 0 is left as it is. @return 0 */
KV_EXPORT int kv_serial_port_close(int port);

/**
 * Opens a port for reading and writing; neither waits. The port may become the process's controlling
 * terminal.
 *
 * @return as kv_serial_port_open()
 */
KV_EXPORT int kv_serial_device_open(int port);

/** Closes a port, as kv_serial_port_close() does. @return 0 */
KV_EXPORT int kv_serial_device_close(int port);

/**
 * Sets a port up for raw bytes: reads return what there is at once, and nothing is echoed. Opens the port
 * where it is closed, and closes it in any case; the kernel keeps the configuration.
 *
 * @param baudrate   a speed code from B57600 to B4000000; any other value is a rate in bits per second, the
 *                   codes up to B38400 included
 * @param data_bits  1 to 4 for 5 to 8 bits; any other value gives 8
 * @param stop_bits  2 for two; any other value gives one
 * @param cts_mode   0 ignores the modem lines; any other value is hardware flow control (RTS/CTS)
 * @return result of the system call that sets the port up, 0 or -1, which is not logged; -1 when the port
 *         cannot be opened and for a parity outside the enumeration
 */
KV_EXPORT int kv_serial_device_config(int port, speed_t baudrate, int data_bits, parity_bits parity,
                                      int stop_bits, int cts_mode);

/**
 * Lets a port's output go out, or drops what is queued in both directions. Opens the port where it is closed.
 *
 * @param behaviour  0 waits until the output has gone out, 1 drops; 2 and 3 do the same and close the port
 * @return result of tcdrain(3) or tcflush(3), 0 or -1, which is not logged; -1 when the port cannot be
 *         opened, and for any other behaviour, which leaves the port open
 */
KV_EXPORT int kv_serial_device_flush(int port, int behaviour);

/**
 * Sets a port's transceiver: its RS-485 and half-duplex lines. Needs that a port was opened before.
 *
 * @param port  1 or 2
 * @param mode  1 drives both lines low, 2 both high, 3 the RS-485 line high and the half-duplex line low
 * @return 0; -1 for any other port or mode, before a port was opened, and when the lines cannot be driven
 */
KV_EXPORT int kv_serial_device_set_mode(int port, int mode);

/**
 * Switches a port's bus termination. Needs that a port was opened before.
 *
 * @param port   1 or 2
 * @param value  what the termination line is driven to: 0 low, 1 or a negative value high
 * @return 0; -1 for any other port or value, before a port was opened, and when the line cannot be driven
 */
KV_EXPORT int kv_serial_device_set_termination(int port, int value);

/** @} */

KV_END_DECLS

#endif
