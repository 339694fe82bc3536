#include "os/pci_access.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "os/directory.h"

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

// An exception through libpci's frames leaves open what libpci has open. Of its failures two come while it
// reads a file of the system, so these files are checked before it reads them.

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

void checkDeviceNames() {
    const DirectoryPtr directory = openDirectory(kPciDevicesDirectory);
    if (!directory) {
        return;  // libpci tells
    }
    while (const dirent* entry = readdir(directory.get())) {
        unsigned domain = 0;
        unsigned bus = 0;
        unsigned slot = 0;
        int function = 0;
        if (entry->d_name[0] != '.' &&
            std::sscanf(entry->d_name, "%x:%x:%x.%d", &domain, &bus, &slot, &function) < 4) {
            throw PciError(std::string("no PCI address: ") + kPciDevicesDirectory + "/" + entry->d_name);
        }
    }
}

void checkResources(const pci_dev& device) {
    std::array<char, 128> text;
    std::snprintf(text.data(), text.size(), "%s/%04x:%02x:%02x.%d/resource", kPciDevicesDirectory,
                  static_cast<unsigned>(device.domain), device.bus, device.dev, device.func);
    const std::string path = text.data();
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
    if (!file) {
        return;  // libpci tells
    }
    while (std::fgets(text.data(), text.size(), file.get()) != nullptr) {
        unsigned long long start = 0;
        unsigned long long end = 0;
        unsigned long long flags = 0;
        if (std::sscanf(text.data(), "%llx %llx %llx", &start, &end, &flags) != 3) {
            throw PciError("no address ranges: " + path);
        }
    }
}

bool readsSysfs(const pci_access& access) {
    return access.method == PCI_ACCESS_SYS_BUS_PCI;
}

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

void scanBus(pci_access& access) {
    if (readsSysfs(access)) {
        checkDeviceNames();
    }
    pci_scan_bus(&access);
}

void fillInfo(pci_dev& device, int fields) {
    if (readsSysfs(*device.access) && (fields & (PCI_FILL_BASES | PCI_FILL_SIZES)) != 0) {
        checkResources(device);
    }
    try {
        pci_fill_info(&device, fields);
    } catch (const PciError&) {
        device.known_fields = 0;  // libpci takes a field as known from the first attempt on
        throw;
    }
}

PciDevicePtr getPciDevice(pci_access& access, unsigned bus, unsigned slot, unsigned function) {
    return PciDevicePtr(
        pci_get_dev(&access, 0, static_cast<int>(bus), static_cast<int>(slot), static_cast<int>(function)));
}

bool isPresent(pci_dev& device) {
    return pci_read_word(&device, PCI_VENDOR_ID) != kAbsentVendorId;
}

}  // namespace kv::os
