/**
 * @file
 * The machine's Ethernet ports: which network interface is which connector, the address of the host link, and
 * the hand-over of a port to an EtherCAT master.
 *
 * A controller is known by its index: its position, from 0, among all PCI functions of class 0x020000 in
 * ascending (bus, slot, function) order. Each call scans the bus anew.
 *
 * The translation file, /usr/kelvaro/sysinfo/ethTranslateFile.txt, holds the connector of each interface as a
 * row of entries without line ends:
 *
 *     end0:-1:Hostlink;enp5s0:0:ETH1;enp6s0:1:ETH2;enp12s0:2:NMA_1A;enp13s0:3:NMA_1B;
 *
 * An entry is the kernel's name of the interface, empty where a controller has none, the controller's index,
 * -1 for the chip's own interfaces, and the connector: a name on the machine's front, "Onboard" where it has
 * none, or a port of an I/O module, such as port B of the first NMA.
 *
 * All functions block on the file system, take no locks and belong to the model's initialisation and
 * termination. None throws. Failures are logged at kv_error unless a function says otherwise; a call that
 * fails because memory is exhausted logs nothing.
 */
#ifndef KV_NETWORK_H
#define KV_NETWORK_H

#include <kv/export.h>

KV_BEGIN_DECLS

/**
 * @name Connectors
 * @{
 */

/**
 * Writes the translation file, and its folder where there is none. Two I/O modules, NMJ and NMK, have no
 * entries. A file that is there is written over in its place, so a reader may see it half written.
 *
 * The chip's own interfaces come from libsystemd's sd-device, and are complete: each name in /sys/class/net
 * must be among the devices found there. An interface that udev has not marked as ready is not. A PCI
 * controller whose interface cannot be found has an entry without one.
 *
 * @return 0; -1 when PCI, a device or the file cannot be accessed, an interface is not ready, or the disk is
 * full. The file then stays as it was; one that was missing still is.
 */
KV_EXPORT int kv_translateEthernetInterfaces(void);

/** Bytes that kv_target_getHostLinkMac() writes at most. */
#define KV_MAC_SIZE 8

/**
 * Tells the hardware address of the interface that the translation file names as "Hostlink".
 *
 * @param outMac  receives the address, 6 bytes for Ethernet; at least KV_MAC_SIZE bytes, untouched on failure
 * @return 0; -1 when the file names none, when the kernel gives no addresses, or, which is not logged, when
 * it has no such interface
 */
KV_EXPORT int kv_target_getHostLinkMac(unsigned char* outMac);

/** @} */

/**
 * @name EtherCAT
 *
 * An EtherCAT master drives a controller through the kernel driver atemsys_pci. While that driver holds the
 * controller it has no network interface: write the translation file before. The controller is function 0 of
 * its bus and slot.
 * @{
 */

/**
 * Takes a controller from its network driver and gives it to atemsys_pci.
 *
 * @return what kv_pci_bindDriver() returned, which logs at kv_info; -1 when there is no such controller or
 * PCI cannot be accessed
 */
KV_EXPORT int kv_configureEthercat(unsigned int absIndex);

/**
 * Takes a controller from its driver and lets the kernel choose one.
 *
 * @return what kv_pci_probeDriver() returned, which logs at kv_info; -1 when there is no such controller,
 * PCI cannot be accessed or the driver does not let go of the controller
 */
KV_EXPORT int kv_teardownEthercat(unsigned int absIndex);

/** @} */

KV_END_DECLS

#endif
