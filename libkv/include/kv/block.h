/**
 * @file
 * What every I/O driver block does when it is set up: fill its block descriptor and read its dialog
 * parameters.
 *
 * The kernel hands a block its descriptor, see kv/block_descriptor.h. The kvMaskInit functions fill the parts
 * of it that are the block's to fill; the kvParam functions read the dialog parameters in it. None keeps any
 * state, prints anything, enters the kernel or blocks but on the memory allocator; they may be called on any
 * thread that has the descriptor to itself. Pointers are not null and indexes in range unless it is said
 * otherwise: nothing is checked.
 *
 * A dialog parameter is an array of doubles: the number of rows, the number of columns, then the values. It
 * is not compared with the number of parameters given, so a block checks that number first, by
 * kvMaskInit_setNumberOfSFunctionParams() or one of the two functions that call it.
 *
 * Numbers are converted by truncation towards zero. One out of range becomes the nearest number of the
 * result's range, and one that is not a number becomes 0, on every processor.
 */
#ifndef KV_BLOCK_H
#define KV_BLOCK_H

#include <stdbool.h>

#include <kv/block_descriptor.h>
#include <kv/export.h>

KV_BEGIN_DECLS

/**
 * @name Setting up
 * @{
 */

/** What a block asks for. Lengths count elements. */
typedef struct {
    int numberOfParams;       /**< dialog parameters that the block expects */
    int integerWorkVecLength; /**< of the work vector of integers */
    int realWorkVecLength;    /**< of reals */
    int pointerWorkVecLength; /**< of pointers */
} KvMaskInit_SetupSettingsArgs;

/**
 * Sets the block's sample time and its offset.
 *
 * @param sampleTime  s; exactly -1.0 inherits the sample time and sets the offset to 1.0, any other sets it
 * to 0.0
 */
KV_EXPORT void kvMaskInit_initSampleTimesForRegularBlock(KvBlockDescriptor* block, double sampleTime);

/** Lets the block inherit its sample time, with an offset of 1.0. */
KV_EXPORT void kvMaskInit_initSampleTimesForSetupBlock(KvBlockDescriptor* block);

/** Sets the number of input ports to 0. The port records are left alone. */
KV_EXPORT void kvMaskInit_setNoInputPorts(KvBlockDescriptor* block);

/**
 * Sets the number of input ports and makes each of the first @p n one of @p width contiguous signals with
 * direct feed-through.
 *
 * @param n  more than INT_MAX reads as a negative number: no port record is touched
 */
KV_EXPORT void kvMaskInit_setInputPorts(KvBlockDescriptor* block, unsigned int n, int width);

/** Sets the number of output ports to 0. The port records are left alone. */
KV_EXPORT void kvMaskInit_setNoOutputPorts(KvBlockDescriptor* block);

/** Sets the number of output ports and gives each of the first @p n a width. See kvMaskInit_setInputPorts().
 */
KV_EXPORT void kvMaskInit_setOutputPorts(KvBlockDescriptor* block, unsigned int n, int width);

/**
 * Sets the number of dialog parameters that the block expects.
 *
 * @return 0 when that many were given, -1 otherwise; the number is set in any case
 */
KV_EXPORT int kvMaskInit_setNumberOfSFunctionParams(KvBlockDescriptor* block, int n);

/** Sets the numbers of continuous and discrete states to 0. */
KV_EXPORT void kvMaskInit_setZeroNumberOfStates(KvBlockDescriptor* block);

/** Sets the number of sample times to 1. */
KV_EXPORT void kvMaskInit_setToSingleRate(KvBlockDescriptor* block);

/** Sets the lengths of the three work vectors, and the numbers of zero crossings and modes to 0. */
KV_EXPORT void kvMaskInit_setVectorSizes(KvBlockDescriptor* block, int iWork, int rWork, int pWork);

/** Sets the option bits of a setup block: 10. */
KV_EXPORT void kvMaskInit_setOptionsForSetupBlock(KvBlockDescriptor* block);

/** Sets the option bits of any other block: 2. */
KV_EXPORT void kvMaskInit_setOptionsForGeneralBlock(KvBlockDescriptor* block);

/**
 * Sets up the sizes of a setup block: parameters, no states, one rate, work vectors, no ports, options.
 *
 * @return 0; -1 when the number of parameters given is not that expected. Then only the number expected was
 * set.
 */
KV_EXPORT int kvMaskInit_initSizesForSetupBlock(KvBlockDescriptor* block, KvMaskInit_SetupSettingsArgs* args);

/** As kvMaskInit_initSizesForSetupBlock() for any other block, which sets its ports itself. */
KV_EXPORT int kvMaskInit_initSizesForRegularBlock(KvBlockDescriptor* block,
                                                  KvMaskInit_SetupSettingsArgs* args);

/** @} */

/**
 * @name Dialog parameters of one value
 *
 * All read the first value of parameter i, counted from 0, whatever its rows and columns.
 * @{
 */

/** @return the value as an int */
KV_EXPORT int kvParam_getInt(const KvBlockDescriptor* block, int i);

/** @return whether the value as an int differs from 0: 0.7 is false */
KV_EXPORT bool kvParam_getBool(const KvBlockDescriptor* block, int i);

/** @return the value as it is */
KV_EXPORT double kvParam_getDouble(const KvBlockDescriptor* block, int i);

/** @return the low 8 bits of the value as a 32-bit unsigned integer: 0 for a negative value, 1 for 257 */
KV_EXPORT char kvParam_getChar(const KvBlockDescriptor* block, int i);

/** @} */

/**
 * @name Dialog parameters of several values
 *
 * A vector has the values of parameter i in stored order, each converted as by the function for one value.
 * Its length is rows times columns, each as a 32-bit unsigned integer; the product is cut to 32 bits and read
 * as signed. Where it is 0 or negative, val has no elements.
 *
 * The vector belongs to the caller, who frees it with the delete function for its type. It comes from new and
 * its val from new[]; val is never null. Where memory is exhausted the functions throw std::bad_alloc, and
 * more exactly std::bad_array_new_length where it is the array that there is no room for. Nothing is leaked
 * then.
 * @{
 */

/** Integers. */
typedef struct {
    int* val; /**< the values */
    int len;  /**< elements */
} KvParam_IntVec;

/** Truth values. */
typedef struct {
    bool* val; /**< the values */
    int len;   /**< elements */
} KvParam_BoolVec;

/** Reals. */
typedef struct {
    double* val; /**< the values */
    int len;     /**< elements */
} KvParam_DoubleVec;

/** Characters without a terminator. */
typedef struct {
    char* val; /**< the values */
    int len;   /**< elements */
} KvParam_CharVec;

/** @return the values as kvParam_getInt() converts them */
KV_EXPORT KvParam_IntVec* kvParam_newIntVec(const KvBlockDescriptor* block, int i);
/** @return the values as kvParam_getBool() converts them */
KV_EXPORT KvParam_BoolVec* kvParam_newBoolVec(const KvBlockDescriptor* block, int i);
/** @return the values as they are */
KV_EXPORT KvParam_DoubleVec* kvParam_newDoubleVec(const KvBlockDescriptor* block, int i);
/** @return the values as kvParam_getChar() converts them */
KV_EXPORT KvParam_CharVec* kvParam_newCharVec(const KvBlockDescriptor* block, int i);

/** Frees a vector and its elements. A null pointer is ignored, for the vector as for its val. */
KV_EXPORT void kvParam_deleteIntVec(KvParam_IntVec* vector);
/** See kvParam_deleteIntVec(). */
KV_EXPORT void kvParam_deleteBoolVec(KvParam_BoolVec* vector);
/** See kvParam_deleteIntVec(). */
KV_EXPORT void kvParam_deleteDoubleVec(KvParam_DoubleVec* vector);
/** See kvParam_deleteIntVec(). */
KV_EXPORT void kvParam_deleteCharVec(KvParam_CharVec* vector);

/** @} */

KV_END_DECLS

#endif
