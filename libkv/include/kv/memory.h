/**
 * @file
 * Memory beyond the process's own heap.
 *
 * Nothing is locked unless a section below says so: these functions belong to the model's initialisation and
 * termination, which run on one thread. Sizes are in bytes. The memory handed out may be used by any thread.
 */
#ifndef KV_MEMORY_H
#define KV_MEMORY_H

#include <stddef.h>
#include <stdint.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/**
 * @name Persistent memory
 *
 * Named blocks of memory that outlive the process. A model that is started again finds each block by its
 * name, with its content and at its old address, so pointers into persistent memory stay valid. The blocks
 * last until kv_freePersistentMemory() or until the machine restarts.
 *
 * A block is a POSIX shared-memory object of the block's name; the object "/kv_persMem_main" lists all
 * blocks. The first call of a process attaches every block. When one of them cannot be attached, because its
 * object is damaged or because its address is occupied, none is available, and none is lost: each further
 * call tries again, and kv_freePersistentMemory() gives them up. Only objects of root and of the effective
 * user are attached.
 *
 * All memory is reserved in /dev/shm when it is made: the list takes 64 KiB, and a page more from the 1017th
 * block on. Each block takes 64 KiB or more, so 1023 blocks take at least 64 MiB.
 *
 * The functions block on shm_open(3), posix_fallocate(3), mmap(2) and flock(2). Other processes are kept out
 * with flock() on the list's object while the list is loaded, a block is made or grows, and all blocks are
 * freed. A function waits for that lock for one second, then fails.
 *
 * A function that needs memory where it is exhausted fails; kv_freePersistentMemory() leaves blocks then.
 *
 * Several processes may make, find and use blocks at the same time. kv_freePersistentMemory() takes the
 * blocks of all of them. A process may be killed at any moment: a block that it has handed out is found again
 * whole, a half-made one is not found. Reasons of failures go to the log.
 * @{
 */

/**
 * Takes memory from the named block; the first call for a name makes the block.
 *
 * Every call hands out fresh bytes, all zero and packed one behind the other without alignment: ask for
 * multiples of 8 to keep addresses aligned. The block grows as needed.
 *
 * @param name  1 to 49 characters without a slash; a longer one ends the process (SIGABRT)
 * @param size  up to 2^31 - 1
 * @return the memory; null when the block cannot be made (the list is not available or locked, /dev/shm is
 *         full, the name cannot be an object's) or there are 1023 blocks already. When an existing block
 *         cannot grow, the result is where its free bytes begin, which are fewer than asked for.
 */
KV_EXPORT void* kv_allocPersistentMemory(const char* name, uint32_t size);

/**
 * @return the block's first byte, which is what the first kv_allocPersistentMemory() for the name returned
 *         if it asked for at most 65488 bytes; null when there is no such block
 */
KV_EXPORT void* kv_getPersistentMemory(const char* name);

/**
 * Removes all blocks, also those that cannot be attached. What processes have mapped stays mapped until they
 * end. In this process the next call of the functions above begins with no blocks. Another process goes on
 * with the blocks that it has attached until it asks for one that it has not. Nothing is removed while the
 * list's object cannot be opened or locked, which is logged.
 */
KV_EXPORT void kv_freePersistentMemory(void);

/** @} */

/**
 * @name Physical memory
 *
 * Physically contiguous memory for DMA. It comes from one of two pools:
 *
 * - the cached buffer, on machines that made one at boot. It is coherent with the caches, and one buffer
 *   serves all requests in blocks of whole 4096 bytes. Allocate and free from any thread.
 * - uncached buffers, one device of the kernel for each request.
 *
 * The kernel's devices of uncached buffers outlive the process: what is not freed stays until the next
 * process asks for its first uncached buffer, which removes them all. So one process at a time uses them.
 * All functions block on the kernel's files. Reasons of failures go to the log, except where a function says
 * that it logs nothing. Exhausted memory counts as a failure and is not logged.
 * @{
 */

/** Allocates nothing: models built for other platforms call it. @return null, with a log record */
KV_EXPORT void* kv_allocPhysicalMemory_cached(size_t size);
/** Allocates nothing: models built for other platforms call it. @return null, with a log record */
KV_EXPORT void* kv_allocPhysicalMemory_uncached(size_t size);

/**
 * Takes memory from the cached buffer where the machine has one, else as an uncached buffer. A cached buffer
 * that is full does not fall back on the other.
 *
 * @param physicalOut  receives the address that the board uses; 0 on failure
 * @return the memory, not cleared; null on failure, or what the two functions below tell of a failed mmap().
 *         kv_freePhysicalMemory() frees it. Throws what kv_udmabuf_areCacheCoherentBuffersAvailable() and
 *         kv_udmabuf_allocCachedBuffer() throw, except std::bad_alloc.
 */
KV_EXPORT void* kv_allocPhysicalMemory_v2(size_t size, uintptr_t* physicalOut);

/** The same from the cached buffer: kv_udmabuf_allocCachedBuffer(). */
KV_EXPORT void* kv_allocPhysicalMemory_v2_cached(size_t size, uintptr_t* physicalOut);

/**
 * The same as an uncached buffer. Up to 4096 bytes take 8192, since the kernel has no contiguous area for
 * single pages. While this process holds none, all "kv-udma-buf" devices of the machine are removed first.
 * When only mmap() fails, the result is MAP_FAILED, as told at kv_udmabuf_allocBuffer().
 */
KV_EXPORT void* kv_allocPhysicalMemory_v2_uncached(size_t size, uintptr_t* physicalOut);

/**
 * Frees what the functions above returned; a null pointer is ignored, any other address is logged and left.
 * An uncached buffer that the kernel does not give back is logged and forgotten.
 */
KV_EXPORT void kv_freePhysicalMemory(void* ptr);

/**
 * Looks an address of this process up in /proc/self/pagemap, with root rights where the process may have
 * them; without them the kernel shows frame 0 for every page. May be called from any thread.
 *
 * @return its physical address at this moment: only DMA memory and locked pages stay where they are. Just
 *         the offset within the page where nothing is mapped, and of what is mapped by frame number, which
 *         the page map leaves out: registers, and buffers of some drivers. 0 when it cannot be read.
 */
KV_EXPORT uintptr_t kv_getPhysicalBufferAddr(void* virtualAddress);

/** @} */

/**
 * @name The two pools, by themselves: the kernel's u-dma-buf driver
 * @{
 */

/** One uncached buffer. Made by kv_udmabuf_allocBuffer(); the caller owns it. */
typedef struct kv_udmabuf_Handle {
    char deviceName[32];    /**< "kv-udma-buf" and a number, in /dev and in /sys/class/u-dma-buf */
    size_t length;          /**< as asked for */
    void* userPtr;          /**< the memory */
    uintptr_t physicalAddr; /**< its first byte, as a board addresses it */
} kv_udmabuf_Handle;

/**
 * Makes and maps an uncached buffer: the manager /dev/u-dma-buf-mgr creates a device of the first number from
 * 0 to 255 that is not there.
 *
 * @param length  the driver takes whole pages for it and tells this size all the same
 * @return the buffer; null when the buffer cannot be made, opened or mapped and when its physical address
 *         cannot be read, which is logged; null without a log record for a size of 0, and when the buffer has
 *         another size than asked for or its size cannot be read. A device that was made then stays until
 *         kv_udmabuf_deleteAllBuffers(). When only mmap() fails, the buffer's userPtr is MAP_FAILED and the
 *         buffer cannot be freed.
 */
KV_EXPORT kv_udmabuf_Handle* kv_udmabuf_allocBuffer(size_t length);

/**
 * Unmaps a buffer, lets the manager delete its device, and frees the handle.
 *
 * @return 0; -1 when the buffer cannot be unmapped or the manager cannot be opened, which is not logged. The
 *         handle is then still the caller's, who may try again. When the manager could not be opened, the
 *         memory is unmapped already and userPtr is null.
 */
KV_EXPORT int kv_udmabuf_freeBuffer(kv_udmabuf_Handle* handle);

/** Lets the manager delete all "kv-udma-buf" devices, whoever made them. @return 0; -1 without a manager */
KV_EXPORT int kv_udmabuf_deleteAllBuffers(void);

/**
 * Takes a block from the cached buffer, the first free one that is large enough. The first block maps the
 * buffer, the device "cached-buffer-pcie" of the class "u-dma-buf".
 *
 * @param size      rounded up to whole 4096 bytes
 * @param physAddr  receives the block's first byte as a board addresses it; 0 on failure
 * @return the block, on a page boundary; null when the buffer's device is missing, cannot be read or cannot
 * be opened, which is logged; null without a log record for a size of 0, without a free block that is large
 * enough, and when memory is exhausted, for the buffer's lock too: the next call tries again. Throws
 * std::invalid_argument or std::out_of_range when the device's address or size is not a number; the next call
 * tries again. A buffer that cannot be mapped is not noticed: its blocks cannot be used.
 */
KV_EXPORT void* kv_udmabuf_allocCachedBuffer(size_t size, uintptr_t* physAddr);

/**
 * Frees a block. The last one unmaps the buffer.
 *
 * @param addr  what the allocation returned
 * @return 0, also when a free block begins there; -1 when none does (free neighbours become one), which is
 *         logged if the address is in the buffer; -1 without a log record when nothing is mapped, and when
 *         memory for the buffer's lock is exhausted
 */
KV_EXPORT int kv_udmabuf_freeCachedBuffer(void* addr);

/** Logs the blocks of the cached buffer, for debugging: reads without the lock that the others take. */
KV_EXPORT void kv_udmabuf_printCachedMemoryBuffers(void);

/**
 * @return 1 when the machine has a cached buffer, else 0; looked up once per process. Throws
 *         std::filesystem::filesystem_error when that cannot be told and std::bad_alloc when memory is
 *         exhausted; the next call tries again.
 */
KV_EXPORT int kv_udmabuf_areCacheCoherentBuffersAvailable(void);

/** @} */

KV_END_DECLS

#endif
