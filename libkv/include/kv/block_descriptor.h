/**
 * @file
 * The record in which the code generator describes a block to the real-time kernel, as far as kv/block.h uses
 * it.
 *
 * The record belongs to the code generator. What stands here lets driver blocks be built and tested without
 * it: it has the members that the library touches, under the generator's names, and no others; their order is
 * ours.
 *
 * A platform puts the generator's own record in its place: it defines KV_BLOCK_DESCRIPTOR_HEADER as the name
 * of a header, with its quotes or angle brackets, that includes the generator's declarations and makes
 * KvBlockDescriptor a name of the record:
 *
 *     -DKV_BLOCK_DESCRIPTOR_HEADER='"platform_block_descriptor.h"'
 *
 * The library and all driver blocks of one process must be compiled with the same definition: the layout is
 * not checked when they meet. The library's own build takes it as a CMake option of that name and then
 * installs kv/block_descriptor_choice.h, which makes the same choice in every project that uses the library.
 */
#ifndef KV_BLOCK_DESCRIPTOR_H
#define KV_BLOCK_DESCRIPTOR_H

#if !defined(KV_BLOCK_DESCRIPTOR_HEADER) && __has_include(<kv/block_descriptor_choice.h>)
#include <kv/block_descriptor_choice.h>
#endif

#ifdef KV_BLOCK_DESCRIPTOR_HEADER
#include KV_BLOCK_DESCRIPTOR_HEADER
#else

#include <stdint.h>

typedef double real_T;     /**< a real number of the code generator */
typedef int int_T;         /**< an integer of the code generator */
typedef uint32_t uint32_T; /**< 32 unsigned bits of the code generator */

/** One input port. */
typedef struct KvBlockInputPort {
    int_T width;             /**< number of signals */
    int_T directFeedThrough; /**< 1 when the outputs of a step depend on its inputs */
    struct {
        unsigned int contiguity : 1; /**< the port's signals must lie in one array */
    } attributes;                    /**< how the signals must lie in memory */
} KvBlockInputPort;

/** One output port. */
typedef struct KvBlockOutputPort {
    int_T width; /**< number of signals */
} KvBlockOutputPort;

/** One block. All arrays belong to the code generator. */
typedef struct KvBlockDescriptor {
    /** When the block runs. */
    struct {
        real_T* sampleTimes; /**< s; -1 is inherited */
        real_T* offsetTimes; /**< s */
    } stInfo;
    /** How much of everything it has. */
    struct {
        int_T numContStates;    /**< continuous states */
        int_T numDiscStates;    /**< discrete states */
        int_T out;              /**< output ports */
        int_T in;               /**< input ports */
        int_T numSampleTimes;   /**< sample times */
        int_T numSFcnParams;    /**< dialog parameters that the block expects */
        int_T numIWork;         /**< length of the work vector of integers */
        int_T numRWork;         /**< of reals */
        int_T numPWork;         /**< of pointers */
        int_T numNonsampledZCs; /**< zero crossings */
        int_T numModes;         /**< modes */
        uint32_T options;       /**< option bits of the code generator */
    } sizes;
    /** Its dialog parameters. */
    struct {
        int_T dlgNum;       /**< dialog parameters that were given */
        double** dlgParams; /**< each: rows, columns, then the values */
    } sfcnParams;
    /** Its ports. */
    struct {
        KvBlockInputPort* inputs;   /**< sizes.in of them */
        KvBlockOutputPort* outputs; /**< sizes.out of them */
    } portInfo;
} KvBlockDescriptor;

#endif

#endif
