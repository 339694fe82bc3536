#pragma once

#include <kv/target.h>

namespace kv {

/** Programs the fabric of a machine of the given family. @return as kv_loadOnChipBitstream() */
int loadBitstream(kv_TargetType type, const char* path);

}  // namespace kv
