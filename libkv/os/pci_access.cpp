#include "os/pci_access.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace kv::os {

namespace {

// libpci's default hook calls exit(). The hook may not return, so the failure travels as an exception through
// libpci's frames to the nearest caller of ours.
[[noreturn]] void throwPciError(char* msg, ...) __attribute__((format(printf, 1, 2)));

void throwPciError(char* msg, ...) {
    std::array<char, 256> text;
    va_list arguments;
    va_start(arguments, msg);
    std::vsnprintf(text.data(), text.size(), msg, arguments);
    va_end(arguments);
    throw PciError(text.data());
}

constexpr u16 kAbsentVendorId = 0xFFFF;

}  // namespace

void nop(char* /*msg*/, ...) {}

PciAccessPtr openPciAccess() {
    PciAccessPtr access(pci_alloc());
    access->error = throwPciError;
    access->warning = nop;
    access->debug = nop;
    pci_init(access.get());
    return access;
}

PciDevicePtr getPciDevice(pci_access& access, unsigned bus, unsigned slot, unsigned function) {
    return PciDevicePtr(
        pci_get_dev(&access, 0, static_cast<int>(bus), static_cast<int>(slot), static_cast<int>(function)));
}

bool isPresent(pci_dev& device) {
    return pci_read_word(&device, PCI_VENDOR_ID) != kAbsentVendorId;
}

}  // namespace kv::os
