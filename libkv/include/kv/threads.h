/**
 * @file
 * Time, threads, semaphores, mutexes, processor pinning and the start of the base rate.
 *
 * All functions may be called from any thread. None blocks unless it says so, but for the log records that
 * some write. Handles carry no lock of their own: destroy one only when no other thread uses it, and pass a
 * null one only where that is allowed. Root rights are taken for the single privileged call inside a function
 * where the process may have them.
 *
 * Behind them stand POSIX threads, semaphores and mutexes, sched_setscheduler(2) and the affinity of threads,
 * which the kernel lists under /proc/self/task.
 */
#ifndef KV_THREADS_H
#define KV_THREADS_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/**
 * @name Time
 *
 * The time base is the processor's monotonic tick counter: the Armv8 generic timer (CNTVCT_EL0, CNTFRQ_EL0);
 * on other processors CLOCK_MONOTONIC_RAW in nanoseconds. None of these functions makes a system call except
 * kv_wait_s() from 1 ms on.
 * @{
 */

/** @return @p in times 5 */
KV_EXPORT double kv_times_five(double in);

/** @return the frequency of the tick counter in Hz */
KV_EXPORT uint64_t kv_getTSCFrequency(void);

/**
 * Spins for @p delay_ns nanoseconds, in whole ticks of the counter; for short waits inside a real-time step.
 * The wait may end up to two ticks early, 20 ns at 100 MHz.
 */
KV_EXPORT void kv_wait_ns(uint32_t delay_ns);

/**
 * Waits. From 1 ms on it sleeps whole milliseconds and drops the rest; below it spins. A negative delay above
 * -1 ms returns at once. The sleep is counted in 32 bits of microseconds: keep delays below 4294 s, and above
 * -1 ms, else it sleeps for what is left of them modulo 2^32 us. A signal that is handled ends the sleep.
 */
KV_EXPORT void kv_wait_s(double delay_s);

/** @return seconds since the origin of the tick counter, which is the start of the machine */
KV_EXPORT double kv_getElapsedTime(void);

/** @} */

/**
 * @name Port I/O
 *
 * This platform has none. Models built for other platforms call these functions; those for a port only log
 * "<name>() not implemented for aarch64" at kv_error.
 * @{
 */

/** Reads no byte. @return 0 */
KV_EXPORT uint8_t kv_inpB(uintptr_t port);
/** Reads no 16-bit word. @return 0 */
KV_EXPORT uint16_t kv_inpW(uintptr_t port);
/** Reads no 32-bit word. @return 0 */
KV_EXPORT uint32_t kv_inpDW(uintptr_t port);
/** Writes no byte. */
KV_EXPORT void kv_outpB(uintptr_t port, uint8_t val);
/** Writes no 16-bit word. */
KV_EXPORT void kv_outpW(uintptr_t port, uint16_t val);
/** Writes no 32-bit word. */
KV_EXPORT void kv_outpDW(uintptr_t port, uint32_t val);

/** Does nothing; models built for other platforms call it. @return 0 */
KV_EXPORT int kv_setAbilities(void);

/** @} */

/**
 * @name Threads
 * @{
 */

/**
 * Starts a thread at SCHED_FIFO and its lowest priority, whatever the caller runs at. It has the caller's
 * rights, without the root rights that its creation takes. The call waits until it runs, which needs a
 * processor of the caller's affinity that no thread of a higher priority keeps for itself.
 *
 * @param func  runs on the new thread
 * @return the thread's handle, which kv_destroyThread() frees; null, with a log record, when the thread
 *         cannot be started, for want of real-time rights above all
 */
KV_EXPORT void* kv_createThread(void* (*func)(void*), void* arg);

/**
 * Cancels a thread, waits until it has ended and frees its handle. Blocks until the thread reaches a
 * cancellation point. Of the library's functions these are: kv_printf(), at its end; kv_wait_s() from 1 ms
 * on, kv_waitForSemaphore(), kv_waitForBaseRateSync(), kv_uio_interruptWait(), and kv_serial_device_flush()
 * while it drains. All others hold cancellation back. The thread's stack unwinds: compile C code in it with
 * -fexceptions, and let no catch (...) in C++ code keep abi::__forced_unwind.
 *
 * @return 0, or the error number of the cancellation; the thread is then not waited for, but the handle is
 *         freed all the same
 */
KV_EXPORT int kv_destroyThread(void* handler);

/**
 * Gives a thread a SCHED_FIFO priority.
 *
 * @param pid       the thread's id; 0 is the caller
 * @param priority  1 to 99, the highest
 * @return 0; -1 with errno set and a log record
 */
KV_EXPORT int kv_setPidPriority(pid_t pid, int priority);

/**
 * @param pid  the thread's id; 0 is the caller
 * @return a thread's priority at SCHED_FIFO or SCHED_RR, 0 at any other policy, -1 with errno set when it
 *         cannot be read
 */
KV_EXPORT int kv_getPidPriority(pid_t pid);

/** @} */

/**
 * @name Semaphores and mutexes: POSIX semaphores and mutexes of this process
 * @{
 */

/** @return the semaphore's handle, null when the count is out of range or memory is exhausted */
KV_EXPORT void* kv_createSemaphore(int initCount);
/** Destroys a semaphore; its few bytes stay allocated. @return 0; 1 on failure */
KV_EXPORT int kv_destroySemaphore(void* handler);
/** Raises the count by one and wakes a waiter. @return 0; 1 on failure */
KV_EXPORT int kv_releaseSemaphore(void* handler);
/** Blocks until the count is above zero, and lowers it. @return 0; 1 on failure and on a signal */
KV_EXPORT int kv_waitForSemaphore(void* handler);

/** @return a new mutex, never locked whatever @p initialOwner says; null when memory is exhausted */
KV_EXPORT void* kv_createMutex(bool initialOwner);
/** Frees a mutex. A null handle is ignored. */
KV_EXPORT void kv_destroyMutex(void* handler);
/** Blocks until the mutex is free and takes it. Throws std::system_error when the system refuses. */
KV_EXPORT void kv_lockMutex(void* handler);
/** Gives the mutex back; the calling thread holds it. Never blocks. */
KV_EXPORT void kv_unlockMutex(void* handler);
/** @return whether the mutex was taken; never blocks */
KV_EXPORT bool kv_tryLockMutex(void* handler);

/** @} */

/**
 * @name Processors
 * @{
 */

/** Lets the calling thread run on one processor only. @return 0; -1 with errno set */
KV_EXPORT int kv_pinThisThreadToCpu(int cpu);

/**
 * Hands out processors for asynchronous interrupts, from 2 upward in turn; 0 and 1 are never given away.
 *
 * @return a processor number; -1 when the machine has fewer than three
 */
KV_EXPORT int kv_pickNextAsyncCpu(void);

/**
 * Pins the calling thread to one processor and moves every other thread of the process, of any user, off it.
 *
 * When one of the others may run on that processor only, nothing is moved. Threads started later inherit the
 * affinity of their creator.
 *
 * @return 0, also where the caller itself could then not be pinned; ENOSYS on a machine with one processor,
 * EINVAL for a processor that is not there, EBUSY as told above, or the error number of a failed system call,
 * after which threads already moved stay moved. errno is left as it was.
 */
KV_EXPORT int kv_pinThreadExclusiveCpu(int cpu);

/** @} */

/**
 * @name Base rate
 * @{
 */

/**
 * Waits up to 100 us of CLOCK_REALTIME for the base rate to start; worker threads poll it. Once started it
 * stays started. Where a model's initialisation fails nobody starts it: end a worker by a flag of its own as
 * well.
 *
 * @return 0 when the base rate has started; -1 when it has not yet
 */
KV_EXPORT int kv_waitForBaseRateSync(void);

/** Tells all waiters that the base rate has started, as the kernel does when the model starts or stops. */
KV_EXPORT void kv_signalBaseRateSync(void);

/** @} */

KV_END_DECLS

#endif
