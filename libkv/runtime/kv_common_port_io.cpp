#include <kv/diagnostics.h>
#include <kv/threads.h>

#include "os/cancellation.h"

namespace {

void reportNotImplemented(const char* function) {
    const kv::os::CancellationHold hold;
    kv_printf(kv_error, "%s() not implemented for aarch64\n", function);
}

}  // namespace

uint8_t kv_inpB(uintptr_t /*port*/) {
    reportNotImplemented(__func__);
    return 0;
}

uint16_t kv_inpW(uintptr_t /*port*/) {
    reportNotImplemented(__func__);
    return 0;
}

uint32_t kv_inpDW(uintptr_t /*port*/) {
    reportNotImplemented(__func__);
    return 0;
}

void kv_outpB(uintptr_t /*port*/, uint8_t /*val*/) {
    reportNotImplemented(__func__);
}

void kv_outpW(uintptr_t /*port*/, uint16_t /*val*/) {
    reportNotImplemented(__func__);
}

void kv_outpDW(uintptr_t /*port*/, uint32_t /*val*/) {
    reportNotImplemented(__func__);
}

int kv_setAbilities(void) {
    return 0;
}
