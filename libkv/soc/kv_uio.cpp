#include <cerrno>
#include <cstring>
#include <linux/pci_regs.h>
#include <new>
#include <string>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/soc.h>
#include <kv/threads.h>

#include "diagnostics/kv_error_text.h"
#include "os/cancellation.h"
#include "os/unique_fd.h"

namespace {

using kv::os::UniqueFd;

constexpr off_t kCommandHigh = PCI_COMMAND + 1;
constexpr unsigned char kInterruptDisable = PCI_COMMAND_INTX_DISABLE >> 8;

constexpr int kModelTriggerCpu = 1;
constexpr int kPriority = 60;
constexpr int kDefaultPriority = 50;

/** Whether all was transferred. Less than that has no errno of its own and counts as EIO. */
bool isWhole(ssize_t transferred, std::size_t sizeBytes) {
    if (transferred == static_cast<ssize_t>(sizeBytes)) {
        return true;
    }
    if (transferred >= 0) {
        errno = EIO;
    }
    return false;
}

void closeDescriptors(kv_InterruptContext& context) {
    for (int* descriptor : {&context.uiofd, &context.configfd}) {
        UniqueFd(std::exchange(*descriptor, -1)).reset();
    }
}

int openFiles(kv_InterruptContext& context) {
    const std::string uioFile = kv::utils::formatString("/dev/uio%d", context.uioIndex);
    context.uiofd = kv::os::openFile(uioFile, O_RDWR).release();
    if (context.uiofd < 0) {
        kv::setErrorText("INT MAP -> Failed to open UIO device %s: %s\n", uioFile.c_str(),
                         std::strerror(errno));
        return -errno;
    }
    context.configfd = kv_pci_openPciConfig(&context.pciInfo, O_RDWR | O_CLOEXEC);
    if (context.configfd < 0) {
        kv::setErrorText("Failed to open PCI configuration file: %s\n", std::strerror(errno));
        return -errno;
    }
    return 0;
}

/** Masks the board's interrupt and keeps the byte that unmasks it. */
int maskInterrupt(kv_InterruptContext& context) {
    unsigned char& commandHigh = context.command_high;
    if (!isWhole(::pread(context.configfd, &commandHigh, 1, kCommandHigh), 1)) {
        kv::setErrorText("Failed to read upper command byte: %s\n", std::strerror(errno));
        return -errno;
    }
    const unsigned char masked = commandHigh | kInterruptDisable;
    if (!isWhole(::pwrite(context.configfd, &masked, 1, kCommandHigh), 1)) {
        kv::setErrorText("Failed to write upper command byte: %s\n", std::strerror(errno));
        return -errno;
    }
    commandHigh = masked ^ kInterruptDisable;
    return 0;
}

}  // namespace

int kv_uio_createInterruptContext(kv_InterruptContext** contextOut, kv_PCIDevice* pciInfo) try {
    if (contextOut == nullptr) {
        kv::setErrorText("Invalid nullptr passed for contextOut");
        return -1;
    }
    auto* context = new kv_InterruptContext{};
    context->pciInfo = *pciInfo;
    context->uioIndex = -1;
    context->uiofd = -1;
    context->configfd = -1;
    context->irq_cpu_assigned = -1;
    context->priority = kPriority;
    context->defaultPriority = kDefaultPriority;
    *contextOut = context;
    return 0;
} catch (const std::bad_alloc&) {
    return -1;
}

int kv_uio_setIrqProps(kv_InterruptContext* context) {
    context->irq_cpu_assigned = context->isModelTrigger ? kModelTriggerCpu : kv_pickNextAsyncCpu();
    return 0;
}

int kv_uio_resetIrqProps(kv_InterruptContext* /*context*/) {
    return 0;
}

int kv_uio_interruptAttach(kv_InterruptContext* context) try {
    const kv::os::CancellationHold hold;
    if (context == nullptr) {
        kv::setErrorText("Invalid nullptr passed for context");
        return -1;
    }
    closeDescriptors(*context);  // left by an attachment that failed halfway
    context->uioIndex = kv_uio_bindDeviceToUio(&context->pciInfo);
    if (context->uioIndex < 0) {
        kv::setErrorText("INT MAP -> Failed to bind UIO device: %s\n", std::strerror(errno));
        return -errno;
    }
    if (const int failure = openFiles(*context); failure != 0) {
        return failure;
    }
    return maskInterrupt(*context);
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}

int kv_uio_interruptWait(kv_InterruptContext* context) {
    if (!isWhole(::read(context->uiofd, &context->intCount, sizeof context->intCount),
                 sizeof context->intCount)) {
        kv::setErrorText("Interrupt Wait: Failed to read UIO device: %s\n", std::strerror(errno));
        return -errno;
    }
    return 0;
}

int kv_uio_enableInterrupt(kv_InterruptContext* context) {
    const _kv_int_fix& fix = context->kv_int_fix;
    if (fix.requested_by_user) {
        if (volatile uint32_t* target = fix.target_register) {
            *target = *target | fix.int_mask;
        }
        return 0;
    }
    const kv::os::CancellationHold hold;
    const ssize_t written = ::pwrite(context->configfd, &context->command_high, 1, kCommandHigh);
    if (!isWhole(written, 1)) {
        // Kept: the text is that of the write's result; the reason is in ours.
        kv::setErrorText("Interrupt Enable: Failed to write config file: %s\n",
                         std::strerror(static_cast<int>(written)));
        return -errno;
    }
    return 0;
}

int kv_uio_interruptEnableFix(kv_InterruptContext* context) {
    const kv::os::CancellationHold hold;
    _kv_int_fix& fix = context->kv_int_fix;
    fix.requested_by_user = true;
    // The driver takes the first write for the type and the second for the mask.
    if (!isWhole(::pwrite(context->uiofd, &fix.fix_type, sizeof fix.fix_type, 0), sizeof fix.fix_type)) {
        kv::setErrorText("Failed to enable Kelvaro interrupt fix: %s\n", std::strerror(errno));
        return -errno;
    }
    if (!isWhole(::pwrite(context->uiofd, &fix.int_mask, sizeof fix.int_mask, 0), sizeof fix.int_mask)) {
        kv::setErrorText("Failed to write Kelvaro interrupt fix int mask: %s\n", std::strerror(errno));
        return -errno;
    }
    return 0;
}

void kv_uio_interruptDetach(kv_InterruptContext* context) {
    const kv::os::CancellationHold hold;
    if (context == nullptr) {
        return;
    }
    closeDescriptors(*context);
    if (context->uioIndex >= 0) {
        (void)kv_uio_resetIrqProps(context);  // never fails
    }
    delete context;
}
