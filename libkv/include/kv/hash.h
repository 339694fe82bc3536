/**
 * @file
 * MurmurHash3, the published public-domain hash functions, for callers: the library itself uses none of them.
 *
 * They are for hash tables and for telling apart what is not made to deceive; they are not cryptographic. The
 * results are those of the published code on a little-endian machine. Any thread may call them; they do not
 * block. A key of 0 bytes may be null; len must not be negative. Neither key nor out needs any alignment.
 */
#ifndef KV_HASH_H
#define KV_HASH_H

#include <stdint.h>

#include <kv/export.h>

KV_BEGIN_DECLS

/** Writes 4 bytes, one uint32_t, to @p out. */
KV_EXPORT void MurmurHash3_x86_32(const void* key, int len, uint32_t seed, void* out);

/** Writes 16 bytes, four uint32_t, to @p out. Made for 32-bit processors; differs from the next one. */
KV_EXPORT void MurmurHash3_x86_128(const void* key, int len, uint32_t seed, void* out);

/** Writes 16 bytes, two uint64_t, to @p out. The fastest on 64-bit processors. */
KV_EXPORT void MurmurHash3_x64_128(const void* key, int len, uint32_t seed, void* out);

KV_END_DECLS

#endif
