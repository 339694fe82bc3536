/**
 * @file
 * Registry of the I/O modules of a model and of the blocks that use them.
 *
 * A module is known by (type, id); under each module, blocks are known by (block type, block id) or by a
 * 64-bit unique id. A look-up by id is two array indexes; one by unique id walks the blocks of its type.
 * Arrays grow to exactly the index needed and never shrink while their owner lives, so ids stay stable;
 * choose small ids.
 *
 * The registry exists from the first registration until the last module is unregistered. Nothing is locked:
 * registration, removal and look-ups belong to the model's initialisation and termination, which run on one
 * thread. Look-ups never block; registration and removal write log records and may block as kv_printf() does.
 *
 * Registration failures leave their reason in pKvErrorStr. All records belong to the registry and come from
 * malloc; callers may read them and may write the fields marked as the driver's. Each record's custom_data
 * belongs to the driver, which frees it when it unregisters.
 */
#ifndef KV_REGISTRY_H
#define KV_REGISTRY_H

#include <stdbool.h>
#include <stdint.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/** One block of a module. */
typedef struct _kv_block_info {
    uint32_t type;     /**< block type */
    uint32_t id;       /**< block id within its type */
    uint64_t uid;      /**< unique id; 0 unless registered by kv_block_register_with_uid() */
    void* custom_data; /**< the driver's */
} kv_block_info;

/** The blocks of one block type; slot i holds block id i or null. */
typedef struct _kv_block_list {
    kv_block_info** blocks; /**< the slots */
    uint32_t Length;        /**< slots in blocks */
    uint32_t nBlocks;       /**< occupied slots */
} kv_block_list;

/** All blocks of one module; slot t holds the blocks of type t or null. */
typedef struct _kv_block_type_list {
    kv_block_list** types; /**< the slots */
    uint32_t Length;       /**< slots in types */
    uint32_t nBlockTypes;  /**< occupied slots */
    uint32_t nBlocks;      /**< blocks of all types */
} kv_block_type_list;

/** One module, usually a board. */
typedef struct _kv_mod_info {
    uint32_t type;                      /**< module type */
    uint32_t id;                        /**< module id within its type */
    bool is_initiator;                  /**< the driver's; false at registration */
    int32_t pci_bus;                    /**< the driver's: PCI bus of the board */
    int32_t pci_slot;                   /**< the driver's: PCI slot of the board */
    void* custom_data;                  /**< the driver's, see kv_module_alloc_custom_data() */
    kv_block_type_list* block_registry; /**< the module's blocks, null while it has none */
} kv_mod_info;

/** An array of module pointers as kv_module_get() hands it out. */
typedef kv_mod_info** kv_mod_list;

/**
 * Registers a module. The array for the largest type or id, 0xFFFFFFFF, counts as more than memory holds.
 *
 * @return the new module; null when it is registered already or memory is exhausted, with the reason in
 * pKvErrorStr
 */
KV_EXPORT kv_mod_info* kv_module_register(uint32_t mod_type, uint32_t mod_id);

/** @return the module, null when it is not registered */
KV_EXPORT kv_mod_info* kv_module_get_single(uint32_t mod_type, uint32_t mod_id);

/** @return the module's custom_data, null when the module is not registered */
KV_EXPORT void* kv_module_get_custom_data(uint32_t mod_type, uint32_t mod_id);

/**
 * Allocates a module's custom data with malloc and stores it in module->custom_data.
 *
 * @return the memory, uninitialised; null when memory is exhausted. The driver frees it. A former pointer in
 *         custom_data is overwritten, not freed.
 */
KV_EXPORT void* kv_module_alloc_custom_data(kv_mod_info* module, uint32_t nBytes);

/**
 * Lists one module, or all modules of a type.
 *
 * With a module id the array has one element, which is set where the module is found. With a negative id it
 * holds all modules of the type in ascending id order; where the type has no list, no array is made and
 * *modules is untouched. A negative id needs a registry that is not empty: with an empty one the process ends
 * (SIGSEGV).
 *
 * @param modules  receives the array, which comes from malloc and is freed by the caller; null when memory is
 *                 exhausted
 * @return the number of modules in the array
 */
KV_EXPORT int32_t kv_module_get(kv_mod_list* modules, uint32_t mod_type, int32_t mod_id);

/** Removes a module and its blocks. Does nothing but log when it is not registered. */
KV_EXPORT void kv_module_unregister(uint32_t mod_type, uint32_t mod_id);

/**
 * Registers a block of a module.
 *
 * @return the new block; null when it is registered already or memory is exhausted, with the reason in
 * pKvErrorStr
 */
KV_EXPORT kv_block_info* kv_block_register(kv_mod_info* module, uint32_t block_type, uint32_t block_id);

/** @return the block, null when it is not registered */
KV_EXPORT kv_block_info* kv_block_get(kv_mod_info* module, uint32_t block_type, uint32_t block_id);

/** Removes a block. Does nothing but log when it is not registered. */
KV_EXPORT void kv_block_unregister(kv_mod_info* module, uint32_t block_type, uint32_t block_id);

/**
 * Registers a block under the lowest free block id and gives it a unique id.
 *
 * The uid is not compared with those of other blocks: registered twice, it makes two blocks.
 *
 * @return as kv_block_register()
 */
KV_EXPORT kv_block_info* kv_block_register_with_uid(kv_mod_info* module, uint32_t block_type, uint64_t uid);

/** @return the block of that type and uid with the lowest id, or null */
KV_EXPORT kv_block_info* kv_block_get_by_uid(kv_mod_info* module, uint32_t block_type, uint64_t uid);

KV_END_DECLS

#endif
