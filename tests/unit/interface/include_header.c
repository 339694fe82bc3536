/* Compiled once for each exported header and language: the header comes first, and comes twice. */
#include KV_HEADER
#include KV_HEADER

typedef int notEmpty;
