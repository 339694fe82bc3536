/**
 * @file
 * Macros that every exported header of the library uses.
 */
#ifndef KV_EXPORT_H
#define KV_EXPORT_H

/** Marks a function or object that the library exports. */
#define KV_EXPORT __attribute__((visibility("default")))

/** Lets the compiler check the arguments of a printf-like function; positions count from 1. */
#define KV_PRINTF_LIKE(formatPosition, firstArgumentPosition) \
    __attribute__((format(printf, formatPosition, firstArgumentPosition)))

#ifdef __cplusplus
/** Stands before declarations that C and C++ share: gives them C linkage. */
#define KV_BEGIN_DECLS extern "C" {
/** Stands behind them. */
#define KV_END_DECLS }
#else
#define KV_BEGIN_DECLS
#define KV_END_DECLS
#endif

#endif
