/**
 * @file
 * Memory beyond the process's own heap.
 *
 * Nothing is locked unless a section below says so: these functions belong to the model's initialisation and
 * termination, which run on one thread. Sizes are in bytes. The memory handed out may be used by any thread.
 */
#ifndef KV_MEMORY_H
#define KV_MEMORY_H

#include <stdint.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/* ---- Persistent memory ------------------------------------------------------------------------------
 *
 * Named blocks of memory that outlive the process. A model that is started again finds each block by its
 * name, with its content and at its old address, so pointers into persistent memory stay valid. The blocks
 * last until kv_freePersistentMemory() or until the machine restarts.
 *
 * A block is a POSIX shared-memory object of the block's name; the object "/kv_persMem_main" lists all
 * blocks. The first call of a process attaches every block. When one of them cannot be attached, because its
 * object is damaged or because its address is occupied, none is available until kv_freePersistentMemory().
 *
 * One process at a time uses persistent memory. A process may be killed at any moment: a block that it has
 * handed out is found again whole, a half-made one is not found. Reasons of failures go to the log.
 */

/**
 * Takes memory from the named block; the first call for a name makes the block.
 *
 * Every call hands out fresh bytes, all zero and packed one behind the other without alignment: ask for
 * multiples of 8 to keep addresses aligned. The block grows as needed.
 *
 * @param name  1 to 49 characters without a slash; a longer one ends the process (SIGABRT)
 * @param size  up to 2^31 - 1
 * @return the memory; null when the block cannot be made or there are 1023 blocks already. When an existing
 *         block cannot grow, the result is where its free bytes begin, which are fewer than asked for.
 */
KV_EXPORT void* kv_allocPersistentMemory(const char* name, uint32_t size);

/**
 * @return the block's first byte, which is what the first kv_allocPersistentMemory() for the name returned
 *         if it asked for at most 65488 bytes; null when there is no such block
 */
KV_EXPORT void* kv_getPersistentMemory(const char* name);

/**
 * Removes all blocks, also those that cannot be attached. What this process has mapped stays mapped until it
 * ends; the next call of the functions above begins with no blocks.
 */
KV_EXPORT void kv_freePersistentMemory(void);

KV_END_DECLS

#endif
