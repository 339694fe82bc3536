/**
 * @file
 * PCI boards: topology, look-up, BAR mapping, configuration space and driver binding.
 *
 * Everything here goes through libpci and the files under /sys/bus/pci. A record has no PCI domain: its files
 * are taken to be in 0000. The functions block on system calls, are not thread-safe and belong to the model's
 * initialisation and termination; only the memory that kv_mapMemory() returns is for the running model. Root
 * rights are taken for single privileged calls where the process may have them.
 */
#ifndef KV_PCI_H
#define KV_PCI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <kv/export.h>

#ifdef __cplusplus
#include <cstdlib>
#endif

KV_BEGIN_DECLS

/** Number of base address registers (BARs) of a PCI function. */
#define KV_PCI_BARS 6

/** A subsystem id argument that matches every board. */
#define KV_PCI_ANY_SUBSYSTEM 0xFFFF

/** One PCI board. The caller allocates it, a look-up fills it, kv_mapMemory() adds the addresses. */
typedef struct _kv_PCIDevice {
    void* dev;                              /**< libpci's device handle */
    void* hdl;                              /**< the caller's */
    uint32_t bus;                           /**< bus number */
    uint32_t slot;                          /**< device number on the bus */
    uintptr_t BaseAddress_raw[KV_PCI_BARS]; /**< BARs as libpci reports them, flag bits included */
    uint32_t BaseAddress[KV_PCI_BARS];      /**< their low 32 bits without the flag bits 0 to 3 */
    uint32_t Length[KV_PCI_BARS];           /**< BAR sizes in bytes; 0 for no BAR and for 4 GiB and more */
    uintptr_t VirtAddress[KV_PCI_BARS];     /**< process address of each mapped BAR */
    uint16_t VendorId;                      /**< vendor id */
    uint16_t DeviceId;                      /**< device id */
    uint16_t SubDeviceId;                   /**< the caller's */
    uint16_t SubVendorId;                   /**< the caller's */
    uint32_t pciIdx;                        /**< ordinal under which the look-up found the board */
} kv_PCIDevice;

/** One PCI function of the topology. */
typedef struct _kv_topo_node {
    uint32_t bus;         /**< 0 to 255 */
    uint32_t slot;        /**< 0 to 31 */
    uint32_t func;        /**< 0 to 7 */
    uint32_t VID;         /**< vendor id */
    uint32_t DID;         /**< device id */
    uint32_t SubVID;      /**< dword 0x2C of the header, its low half; no id on a bridge */
    uint32_t SubDID;      /**< its high half */
    uint32_t classcode;   /**< base class, sub-class and programming interface, 24 bits */
    char* interfaceType;  /**< "PCIe<capability version> x<link width>", or "PCI", as always without root */
    bool MF;              /**< multi-function bit of the header type */
    uint32_t headerType;  /**< 0 device, 1 PCI-to-PCI bridge, 2 CardBus bridge */
    uintptr_t customData; /**< of header type 1: address of its kv_topo_bridge; else not to be read */
    struct _kv_topo_node* parent; /**< the bridge in front of this function, null at the top level */
} kv_topo_node;

/** What lies behind a PCI-to-PCI bridge. */
typedef struct _kv_topo_bridge {
    uint32_t prim;          /**< primary bus */
    uint32_t sec;           /**< secondary bus */
    uint32_t sub;           /**< subordinate bus */
    uint32_t nChildren;     /**< functions on the secondary bus */
    kv_topo_node* children; /**< array of nChildren nodes */
} kv_topo_bridge;

/**
 * @name Topology
 * @{
 */

/**
 * Scans a bus and all buses behind its bridges.
 *
 * A bridge whose secondary bus is 0, its own bus or one that is being scanned keeps an empty record.
 *
 * @param topo  receives the array of the functions on the bus in ascending slot and function order, null when
 * there is none. The arrays, bridge records and texts come from malloc and belong to the caller;
 * kv::OwnedTopology frees them.
 * @return the number of functions on the bus itself; -1 when the machine offers no access to PCI or the
 * system's list of its devices cannot be read as a whole
 */
KV_EXPORT int32_t kv_getPciTopologyAtBus(kv_topo_node** topo, uint32_t bus);

/** Scans from bus 0. See kv_getPciTopologyAtBus(). */
KV_EXPORT int32_t kv_getPciTopology(kv_topo_node** topo);

/**
 * Prints the tree of @p n nodes to standard output, one line a function, children one tab further in. A null
 * array prints nothing.
 */
KV_EXPORT void kv_printPciTopology(kv_topo_node* topo, uint32_t n);

/** @} */

/**
 * @name Look-up
 *
 * A look-up fills dev, bus, slot, the three BAR arrays, VendorId, DeviceId and pciIdx, and leaves the rest of
 * the record to the caller. All return 0 when the board was found and 1 when it was not, an argument was bad
 * or PCI could not be read; the record may then be partly filled. Block names are cut at 127 characters.
 *
 * As a side effect every device that is visited on the way, bridges and strangers included, is enabled in its
 * command register. By index: memory space and bus mastering are added, with root rights. At a slot: they
 * replace the low byte, so that I/O space goes off, without root rights. Where the process has none, or the
 * register cannot be read, nothing changes.
 *
 * A device that the system has removed since the bus was scanned is passed over, unless an earlier look-up
 * has identified it: then it keeps its position.
 * @{
 */

/**
 * Finds the n-th board of an identity in ascending (bus, slot, function) order.
 *
 * Sees the bus as it was at the first look-up by index, or scan, of the process that could read the whole
 * list of devices. Keeps the configuration space of the last device that it visited open, close-on-exec. Sets
 * no error text.
 *
 * @param moduleId  position from 1; 0 and negative values find the first
 */
KV_EXPORT int kvPCI_getDeviceByIdx(uint16_t vendorId, uint16_t deviceId, uint16_t subVendorId,
                                   uint16_t subDeviceId, int moduleId, kv_PCIDevice* pPciInfo);

/**
 * Finds the board of an identity at one place. Rescans the bus on each call and sets no error text.
 *
 * pciIdx becomes the number of boards of the same identity that were passed over. The handle in dev is not
 * usable afterwards: it belonged to the scan.
 */
KV_EXPORT int kvPCI_getDeviceAtSlot(uint16_t vendorId, uint16_t deviceId, uint16_t subVendorId,
                                    uint16_t subDeviceId, uint16_t Bus, uint16_t Slot,
                                    kv_PCIDevice* pPciInfo);

/**
 * Finds a block's board: at a bus and slot, or where @p Slot is negative the board at position @p ModuleId.
 *
 * On failure pKvErrorStr names the block and the reason.
 */
KV_EXPORT int kv_findPciDevice(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId,
                               uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId, int ModuleId,
                               int Bus, int Slot);

/** Tells whether there is a board at position @p ModuleId; see kvPCI_getDeviceByIdx(). pKvErrorStr as above.
 */
KV_EXPORT int kv_detectPciDevice(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId,
                                 uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId, int ModuleId);

/** Tells whether the board is at a bus and slot; see kvPCI_getDeviceAtSlot(). pKvErrorStr as above. */
KV_EXPORT int kv_detectPciDeviceAtSlot(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId,
                                       uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId, int Bus,
                                       int Slot);

/**
 * Finds a board that exists in several variants, given as @p nDevs parallel identities.
 *
 * At a bus and slot the first identity that is there wins. Where @p Slot is negative, the boards of all
 * identities are put in (bus, slot) order and the one at position @p PciAutosearchPos, counted from 1, is
 * taken; at most 255 boards of each identity are seen. The record is then replaced as a whole: fields that
 * are the caller's become 0. pKvErrorStr as above.
 */
KV_EXPORT int kv_findPciDeviceMultiIDs(kv_PCIDevice* pPciInfo, const char* pDevNameStr, size_t nDevs,
                                       uint16_t* pVendorId, uint16_t* pDeviceId, uint16_t* pSubVendorId,
                                       uint16_t* pSubDeviceId, int PciAutosearchPos, int Bus, int Slot);

/** @} */

/**
 * @name Memory and configuration space
 * @{
 */

/**
 * Maps a BAR into the process, shared, readable and writable; the mapping stays until the process ends.
 *
 * A BAR at a page boundary is mapped through /sys/bus/pci/devices/.../resourceN, any other through /dev/mem
 * at BaseAddress, or at BaseAddress_raw where that is above 4 GiB. The device is enabled first through its
 * `enable` file; a failure there is only logged.
 *
 * @param bar  0 to 5, a BAR in memory space: that of port I/O has no address in memory, and what is mapped
 * for it is not the board's. Nor can a BAR be mapped that a driver of the kernel has claimed, where the
 * kernel is built with CONFIG_IO_STRICT_DEVMEM.
 * @return the process address of the BAR's first byte, also stored in VirtAddress; null, with a log record,
 * when the BAR cannot be mapped, as one whose Length is 0
 */
KV_EXPORT void* kv_mapMemory(kv_PCIDevice* dev, uint32_t bar);

/** There is no port I/O on this platform: logs that and returns null. */
KV_EXPORT void* kv_mapIo(kv_PCIDevice* device, uint32_t bar);

/** Logs ids, place and BARs of a board at kv_info. */
KV_EXPORT void kv_showPciDevice(kv_PCIDevice* pDev);

/**
 * Saves the part of the configuration header that a reset of the board loses. Uses only bus and slot of the
 * record. Where no function 0 answers there, that is logged at kv_error and @p configSave stays as it is.
 *
 * @param configSave  receives eight words: the six BARs, the dword at 0x3C, the command register. Where
 * function 0 is there but a register cannot be read, only the last is set, to 0xffffffff, and the same is
 * logged.
 */
KV_EXPORT void kvPCI_backupPCIConfig(kv_PCIDevice* pciinfo, uint32_t* configSave);

/**
 * Writes back what kvPCI_backupPCIConfig() saved; memory space and bus mastering are on afterwards, I/O space
 * off. Where no function 0 answers there, or the last word is 0xffffffff, that is logged at kv_error and
 * nothing is written.
 */
KV_EXPORT void kvPCI_restorePCIConfig(kv_PCIDevice* pciinfo, const uint32_t* configSave);

/** Logs the 64-byte standard configuration header at kv_info. Does nothing when there is no such device. */
KV_EXPORT void kvPCI_printPCIConfig(kv_PCIDevice* pciinfo);

/**
 * Opens the configuration space file of function 0.
 *
 * @param flags  flags of open(2); must not ask for creation
 * @return a descriptor that the caller closes, or -1 with errno set
 */
KV_EXPORT int kv_pci_openPciConfig(kv_PCIDevice* pciDev, int flags);

/** @} */

/**
 * @name Drivers
 *
 * These write the board's address to a file of the kernel. 0 says that the file could be opened; whether the
 * kernel accepts the address is not examined. -1 is logged at kv_info, also for a null device.
 * @{
 */

/** Takes the board from its driver. @return 0, also when no driver was bound; -1 */
KV_EXPORT int kv_pci_unbindDriver(kv_PCIDevice* device);

/**
 * Takes the board from its driver and gives it to another.
 *
 * @param driverName  the folder's name in /sys/bus/pci/drivers
 * @return 0, or -1 when there is no such driver
 */
KV_EXPORT int kv_pci_bindDriver(kv_PCIDevice* device, const char* driverName);

/** Lets the kernel choose a driver for the board. @return 0 or -1 */
KV_EXPORT int kv_pci_probeDriver(kv_PCIDevice* device);

/** @} */

KV_END_DECLS

#ifdef __cplusplus
namespace kv {

/** Scans a topology and frees it, with everything below it, at the end of its life. */
class OwnedTopology {
 public:
    /** Scans as kv_getPciTopologyAtBus() does. */
    explicit OwnedTopology(uint32_t bus = 0) : count_(kv_getPciTopologyAtBus(&nodes_, bus)) {}
    ~OwnedTopology() { release(nodes_, count_); }
    OwnedTopology(const OwnedTopology&) = delete;
    OwnedTopology& operator=(const OwnedTopology&) = delete;

    /** What the scan returned. */
    int32_t count() const { return count_; }
    /** The functions on the bus; null when there is none. They live as long as the object. */
    kv_topo_node* nodes() const { return nodes_; }

 private:
    static void release(kv_topo_node* nodes, int32_t count) {
        for (int32_t i = 0; i < count; ++i) {
            if (nodes[i].headerType == 1) {
                auto* bridge = reinterpret_cast<kv_topo_bridge*>(nodes[i].customData);
                release(bridge->children, static_cast<int32_t>(bridge->nChildren));
                std::free(bridge);
            }
            std::free(nodes[i].interfaceType);
        }
        std::free(nodes);
    }

    kv_topo_node* nodes_ = nullptr;
    int32_t count_;
};

}  // namespace kv
#endif

#endif
