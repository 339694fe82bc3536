/**
 * @file
 * Entry points for generated code.
 *
 * What the code generator emits calls the library by names that carry the release of the interface in which
 * the call first appeared: "_v", two digits of the year and a letter. Each name passes its arguments on to
 * the current function, unchanged, and returns what that returns; results, threads and blocking are told
 * there.
 *
 * The names are kept for ever, so that models built years ago load with a new library: no name is taken away,
 * none changes its parameters or its meaning, and a newer release adds names next to the old ones. Code that
 * is written by hand calls the current functions.
 */
#ifndef KV_HDLC_H
#define KV_HDLC_H

#include <stddef.h>
#include <stdint.h>

#include <kv/export.h>
#include <kv/memory.h>
#include <kv/pci.h>
#include <kv/registry.h>
#include <kv/soc.h>

KV_BEGIN_DECLS

/**
 * @name Time and port I/O: see kv/threads.h
 * @{
 */

/** Is kv_inpDW(). */
KV_EXPORT uint32_t kv_hdlc_inpDW_v19b(uintptr_t port);
/** Is kv_outpDW(). */
KV_EXPORT void kv_hdlc_outpDW_v19b(uintptr_t port, uint32_t val);
/** Is kv_setAbilities(). */
KV_EXPORT int kv_hdlc_setAbilities_v19b(void);
/** Is kv_wait_s(). */
KV_EXPORT void kv_hdlc_wait_s_v19b(double delay_s);
/** Is kv_getElapsedTime(). */
KV_EXPORT double kv_hdlc_getElapsedTime_v19b(void);

/** @} */

/**
 * @name Registry: see kv/registry.h
 * @{
 */

/** Is kv_module_register(). */
KV_EXPORT kv_mod_info* kv_hdlc_module_register_v19b(uint32_t mod_type, uint32_t mod_id);
/** Is kv_module_unregister(). */
KV_EXPORT void kv_hdlc_module_unregister_v19b(uint32_t mod_type, uint32_t mod_id);
/** Is kv_module_get(). */
KV_EXPORT int32_t kv_hdlc_module_get_v19b(kv_mod_list* modules, uint32_t mod_type, int32_t mod_id);
/** Is kv_module_get_single(). */
KV_EXPORT kv_mod_info* kv_hdlc_module_get_single_v24a(uint32_t mod_type, uint32_t mod_id);
/** Is kv_block_register(). */
KV_EXPORT kv_block_info* kv_hdlc_block_register_v24a(kv_mod_info* module, uint32_t block_type,
                                                     uint32_t block_id);
/** Is kv_block_unregister(). */
KV_EXPORT void kv_hdlc_block_unregister_v24a(kv_mod_info* module, uint32_t block_type, uint32_t block_id);
/** Is kv_block_get(). */
KV_EXPORT kv_block_info* kv_hdlc_block_get_v24a(kv_mod_info* module, uint32_t block_type, uint32_t block_id);

/** @} */

/**
 * @name Memory: see kv/memory.h
 * @{
 */

/** Is kv_allocPhysicalMemory_uncached(), which allocates nothing. @return null, with a log record */
KV_EXPORT void* kv_hdlc_allocPhysicalMemory_v19b(size_t size);
/** Is kv_allocPhysicalMemory_v2(). */
KV_EXPORT void* kv_hdlc_allocPhysicalMemory_v2_v22b(size_t size, uintptr_t* physicalOut);
/** Is kv_freePhysicalMemory(). */
KV_EXPORT void kv_hdlc_freePhysicalMemory_v19b(void* ptr);
/** Is kv_getPhysicalBufferAddr(). */
KV_EXPORT uintptr_t kv_hdlc_getPhysicalBufferAddr_v25a(void* virtualAddress);

/** @} */

/**
 * @name On-chip devices: see kv/soc.h
 * @{
 */

/** Is kv_findAxiDevice(). */
KV_EXPORT int kv_hdlc_findAxiDevice_v25a(kv_AxiDevice* dev, const char* name);
/** Is kv_mapAxiBar(). */
KV_EXPORT uintptr_t kv_hdlc_mapAxiBar_v25a(kv_AxiDevice* dev, uint32_t mapIndex);
/** Is kv_loadOnChipBitstream(). */
KV_EXPORT int kv_hdlc_loadOnChipBitstream_v25a(const char* path);

/** @} */

/**
 * @name PCI: see kv/pci.h
 * @{
 */

/** Is kv_findPciDevice(). */
KV_EXPORT int kv_hdlc_findPciDevice_v19b(kv_PCIDevice* pPciInfo, const char* pDevNameStr, uint16_t vendorId,
                                         uint16_t deviceId, uint16_t subVendorId, uint16_t subDeviceId,
                                         int ModuleId, int Bus, int Slot);
/** Is kv_showPciDevice(). */
KV_EXPORT void kv_hdlc_showPciDevice_v19b(kv_PCIDevice* pDev);
/** Is kv_mapMemory(). */
KV_EXPORT void* kv_hdlc_mapMemory_v19b(kv_PCIDevice* dev, uint32_t bar);
/** Is kvPCI_backupPCIConfig(). */
KV_EXPORT void kvPCI_backupPCIConfig_v22a(kv_PCIDevice* pciinfo, uint32_t* configSave);
/** Is kvPCI_restorePCIConfig(). */
KV_EXPORT void kvPCI_restorePCIConfig_v22a(kv_PCIDevice* pciinfo, const uint32_t* configSave);
/** Is kvPCI_printPCIConfig(). */
KV_EXPORT void kvPCI_printPCIConfig_v22a(kv_PCIDevice* pciinfo);
/** Is kv_pci_bindDriver(). */
KV_EXPORT int kv_pci_bindDriver_v26a(kv_PCIDevice* device, const char* driverName);
/** Is kv_pci_unbindDriver(). */
KV_EXPORT int kv_pci_unbindDriver_v26a(kv_PCIDevice* device);

/** @} */

/**
 * @name Paths and processes: see kv/process.h
 * @{
 */

/** Is kv_getModelBaseDir(). */
KV_EXPORT int kv_hdlc_getModelBaseDir_v21a(char* outPath, uint32_t maxLen);
/** Is kv_spawnExecutable(). */
KV_EXPORT int kv_hdlc_spawnExecutable_v21b(const char* path, const char* executableName, const char* options);

/** @} */

/**
 * @name Life of a model: see kv/lifecycle.h
 * @{
 */

/** Is kv_isModelInit(). */
KV_EXPORT int kv_hdlc_isModelInit_v19b(void);
/** Is kv_isFirstModelLoad(). */
KV_EXPORT int kv_hdlc_isFirstModelLoad_v26a(void);
/** Is kv_initModelRun(). */
KV_EXPORT void kv_hdlc_initModelRun_v21b(void);
/** Calls kv_tagModelRun() and, unlike that, tells nothing about its success. */
KV_EXPORT void kv_hdlc_terminateModelRun_v22a(void);
/** Is kv_add_start_callback(). */
KV_EXPORT void kv_hdlc_add_start_callback_v26a(void (*callback)(void*), void* argument, int priority);

/** @} */

KV_END_DECLS

#endif
