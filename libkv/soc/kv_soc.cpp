#include <cstring>
#include <new>

#include <kv/diagnostics.h>
#include <kv/soc.h>

#include "os/cancellation.h"
#include "os/shell.h"
#include "soc/kv_soc_internal.h"

namespace {

/** @return the shell's status, 0 when the command succeeded */
int runLoader(const char* path) {
    return kv::os::runShell(kv::utils::formatString("sudo kv_load-bitstream '%s'", path).c_str());
}

/** The path stands between single quotes, so one of its own would end it and the shell would run the rest. */
bool canBeQuoted(const char* path) {
    return std::strchr(path, '\'') == nullptr;
}

}  // namespace

int kv::loadBitstream(kv_TargetType type, const char* path) {
    if (type != Olive) {
        kv_printf(kv_error, "SoC: Target machine does not have a System-on-Chip!\n");
        return -1;
    }
    kv_printf(kv_debug, "SoC: Loading bitstream \"%s\"\n", path);
    if (!canBeQuoted(path) || runLoader(path) != 0) {
        kv_printf(kv_error, "SoC: Program to load bitstream failed!\n");
        return -1;
    }
    return 0;
}

int kv_loadOnChipBitstream(const char* path) try {
    const kv::os::CancellationHold hold;
    return kv::loadBitstream(kv_getTargetType(), path);
} catch (const std::bad_alloc&) {
    return -1;
}
