/**
 * @file
 * On-chip devices and interrupts: AXI devices of the programmable fabric, the fabric's bitstream, and
 * interrupts of PCI boards.
 *
 * Linux UIO stands behind all of it. An AXI device is a UIO device of that name under /sys/class/uio; a PCI
 * board becomes one when the kernel driver uio_kelvaro holds it.
 *
 * Nothing is locked. These functions belong to the model's initialisation and termination, which run on one
 * thread, and block on system calls; kv_uio_interruptWait() and kv_uio_enableInterrupt() are for the one
 * thread that serves a context's interrupt. The reason of a failure is in pKvErrorStr unless a function says
 * otherwise. Root rights are taken for single privileged calls where the process may have them.
 * A function that needs memory where it is exhausted fails; pKvErrorStr may stay as it is then.
 */
#ifndef KV_SOC_H
#define KV_SOC_H

#include <semaphore.h>
#include <stdbool.h>
#include <stdint.h>

#include <kv/export.h>
#include <kv/pci.h>

KV_BEGIN_DECLS

/**
 * @name AXI devices
 * @{
 */

/** Size of a device path in bytes, the terminator included. */
#define KV_AXI_DEV_PATH_SIZE 256

/** One AXI device. The caller allocates it, kv_findAxiDevice() fills it. */
typedef struct {
    int uioIndex;                          /**< number N of the UIO device */
    char uioDevPath[KV_AXI_DEV_PATH_SIZE]; /**< its device file, "/dev/uioN" */
} kv_AxiDevice;

/**
 * Finds an AXI device by the first word of /sys/class/uio/uioN/name, upper and lower case being different.
 *
 * UIO numbers are expected to be contiguous from 0: the first missing one ends the search.
 *
 * @param dev  written only when the device is found
 * @return 0; -1 when there is no such device or a name file cannot be opened
 */
KV_EXPORT int kv_findAxiDevice(kv_AxiDevice* dev, const char* name);

/**
 * Maps a memory region of a device, shared, readable and writable. The mapping stays until the process ends.
 *
 * Length and file offset are the attributes "size" and "offset" under /sys/class/uio/uioN/maps/mapM; a text
 * there that is no hexadecimal number counts as 0. The file offset is that attribute, and not M pages as a
 * driver that follows UIO's convention counts: of such a driver only region 0 is reached.
 *
 * @param mapIndex  number M of the region
 * @return the process address of the region's first byte; 0 when it cannot be mapped, which leaves the device
 *         open where mmap(2) failed
 */
KV_EXPORT uintptr_t kv_mapAxiBar(kv_AxiDevice* dev, uint32_t mapIndex);

/**
 * Lets an AXI device's interrupt be served by one processor.
 *
 * The interrupt is the one that has a handler of the device's name in /proc/irq/N/, its processors are those
 * in /proc/irq/N/smp_affinity_list. An interrupt that is bound to processor 1 alone stays there.
 *
 * @param cpu  processor number from 0; a negative one changes nothing
 * @return 0; -1 with errno set: EINVAL for an empty name or a null pointer, ENOENT when no interrupt has such
 * a handler, EIO when the list is empty, or the error of the failed system call
 */
KV_EXPORT int kv_setAxiIrqAffinity(const char* name, int cpu);

/**
 * Programs the fabric by running the command kv_load-bitstream through sudo, and waits until it has ended.
 * Both are found through PATH, which should name folders of root alone. Signals are handled meanwhile, SIGINT
 * and SIGQUIT included, and the wait goes on.
 *
 * Failures are logged at kv_error; pKvErrorStr stays as it is.
 *
 * @param path  the bitstream file; a path with a single quote in it is refused, as a shell runs the command
 * @return 0; -1 on a machine without a fabric, where nothing is run, and when the command fails
 */
KV_EXPORT int kv_loadOnChipBitstream(const char* path);

/** @} */

/**
 * @name Interrupts of PCI boards
 *
 * An interrupt context serves the legacy interrupt (INTx) of one board. In order:
 *
 *     kv_uio_createInterruptContext(&context, &board);
 *     context->isModelTrigger = true;  // only where the interrupt drives the model's base rate
 *     kv_uio_setIrqProps(context);
 *     kv_uio_interruptAttach(context);
 *     kv_uio_enableInterrupt(context);
 *     while (running && kv_uio_interruptWait(context) == 0) {
 *         ...
 *         kv_uio_enableInterrupt(context);
 *     }
 *     kv_uio_interruptDetach(context);
 *
 * The interrupt is masked, by Interrupt Disable in the board's command register, from the attachment to the
 * first enable and again from each interrupt to the next enable.
 *
 * Some boards want a bit set in a register of theirs instead. For these fill target_register, int_mask and
 * fix_type of kv_int_fix and call kv_uio_interruptEnableFix() once after the attachment. From then on the
 * library leaves the command register alone: it is the driver's.
 * @{
 */

/** How a board that cannot be unmasked by its command register is served. */
typedef struct _kv_int_fix {
    bool requested_by_user;    /**< in use; set by kv_uio_interruptEnableFix() */
    uint32_t* target_register; /**< mapped register of the board that enables its interrupt, or null */
    uint32_t int_mask;         /**< the bits to set there; the driver is told too */
    uint32_t fix_type;         /**< what the driver does when the interrupt comes */
} _kv_int_fix;

/** One interrupt source. Fields that are the caller's are 0 at first; the library does not look at them. */
typedef struct {
    kv_PCIDevice pciInfo;          /**< copy of the board's record */
    bool is_polling;               /**< the caller's */
    void* map[KV_PCI_BARS];        /**< the caller's */
    int uioIndex;                  /**< number N of the board's UIO device, -1 while there is none */
    int uiofd;                     /**< descriptor of /dev/uioN, -1 while closed */
    int configfd;                  /**< descriptor of the board's configuration space, -1 while closed */
    unsigned char command_high;    /**< upper byte of the command register that unmasks the interrupt */
    uint16_t interruptChannel;     /**< the caller's */
    int moduleId;                  /**< the caller's */
    void* customData;              /**< the caller's, who frees what it points to */
    _kv_int_fix kv_int_fix;        /**< filled by the caller where the board needs it, see above */
    sem_t start_func_finished_sem; /**< the caller's, not initialised by the library */
    sem_t wait_func_ready_sem;     /**< the caller's, not initialised by the library */
    bool is_first_wait_call;       /**< the caller's */
    bool waiting_for_start;        /**< the caller's */
    int intCount;                  /**< interrupts of the UIO device so far, as of the last wait */
    int noIntCount;                /**< the caller's */
    int irq_cpu_assigned;          /**< processor for the interrupt's thread, -1 for none */
    int priority;                  /**< priority of the interrupt's thread, 60 at first */
    int defaultPriority;           /**< 50 at first */
    bool isModelTrigger;           /**< set by the caller: the interrupt drives the model's base rate */
    bool overloadCheckEnabled;     /**< the caller's */
} kv_InterruptContext;

/**
 * Gives a board to the driver uio_kelvaro, unless it is a UIO device already, and lets every user open its
 * device file.
 *
 * Tells the driver the board's identity through its new_id file; where another driver holds the board, takes
 * it from there. Failures on that way are logged at kv_info; pKvErrorStr stays as it is.
 *
 * @return the number N of /dev/uioN; -1 with errno set
 */
KV_EXPORT int kv_uio_bindDeviceToUio(kv_PCIDevice* pciDev);

/**
 * Makes a context for a board, not yet attached.
 *
 * @param contextOut  receives the context, which kv_uio_interruptDetach() frees
 * @return 0; -1 when @p contextOut is null or memory is exhausted
 */
KV_EXPORT int kv_uio_createInterruptContext(kv_InterruptContext** contextOut, kv_PCIDevice* pciInfo);

/**
 * Chooses the processor for the interrupt's thread: 1 for the model's trigger, else the one that
 * kv_pickNextAsyncCpu() hands out. Pinning the thread is left to the caller. @return 0
 */
KV_EXPORT int kv_uio_setIrqProps(kv_InterruptContext* context);

/** Does nothing. @return 0 */
KV_EXPORT int kv_uio_resetIrqProps(kv_InterruptContext* context);

/**
 * Binds the board by kv_uio_bindDeviceToUio(), opens its files and masks its interrupt.
 *
 * After a failure the context keeps what is open already: detach it, or attach again, which begins anew.
 *
 * Where the interrupt cannot be masked, command_high is the byte as it was read.
 *
 * @return 0; -1 for a null context; else a negative errno value
 */
KV_EXPORT int kv_uio_interruptAttach(kv_InterruptContext* context);

/**
 * Blocks until the next interrupt and puts the running total into intCount. An interrupt that came since the
 * last wait is not lost. One read(2) of the UIO device and so a cancellation point.
 *
 * @return 0; a negative errno value, -EINTR after a signal among them
 */
KV_EXPORT int kv_uio_interruptWait(kv_InterruptContext* context);

/**
 * Unmasks the interrupt: one pwrite(2) of the command register's upper byte, or with the fix the bits of
 * int_mask set in target_register, if there is one, without a system call. Does not block.
 *
 * @return 0; a negative errno value
 */
KV_EXPORT int kv_uio_enableInterrupt(kv_InterruptContext* context);

/**
 * Turns the fix on: tells the driver fix_type and then int_mask, each as a 4-byte write to the UIO device.
 *
 * @return 0; a negative errno value. The fix counts as requested in either case.
 */
KV_EXPORT int kv_uio_interruptEnableFix(kv_InterruptContext* context);

/**
 * Closes what the context has open and frees it; null is ignored. The board stays with uio_kelvaro and its
 * command register as it is. No thread may still be waiting.
 */
KV_EXPORT void kv_uio_interruptDetach(kv_InterruptContext* context);

/** @} */

KV_END_DECLS

#endif
