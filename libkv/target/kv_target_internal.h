#pragma once

#include <kv/target.h>

namespace kv {

/** The name under which machines of a family are sold; "NonKelvaro" for values that are no such family. */
const char* marketingName(kv_TargetType type);

}  // namespace kv

/**
 * Reads up to @p nBytes bytes of a file with one read and adds no terminator.
 *
 * @return the number of bytes read, -1 when the file cannot be opened (buf is then untouched) or read
 */
int readFromTextFile(const char* filename, char* buf, int nBytes);
