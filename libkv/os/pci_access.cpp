#include "os/pci_access.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <string>
#include <utility>

#include "os/directory.h"
#include "os/unique_fd.h"

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

// An exception through libpci's frames leaves open what libpci has open. Of its failures two come while it
// reads a file of the system, so these files are checked before it reads them.

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

/** The path of a file of a function, or of its folder. Needs no memory, as a look-up after the first one. */
class FunctionPath {
 public:
    FunctionPath(const PciAddress& function, const char* file) {
        std::snprintf(text_.data(), text_.size(), "%s/%04x:%02x:%02x.%x/%s", kPciDevicesDirectory,
                      function.domain, function.bus, function.slot, function.function, file);
    }
    [[nodiscard]] const char* c_str() const { return text_.data(); }

 private:
    std::array<char, 96> text_;
};

PciAddress addressOf(const pci_dev& device) {
    return {static_cast<unsigned>(device.domain), device.bus, device.dev, device.func};
}

bool isMissing(const PciAddress& function) {
    return ::access(FunctionPath(function, "").c_str(), F_OK) != 0 && errno == ENOENT;
}

void checkResources(const pci_dev& device) {
    std::array<char, 128> text;
    const FunctionPath path(addressOf(device), "resource");
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
    if (!file) {
        return;  // libpci tells
    }
    while (std::fgets(text.data(), text.size(), file.get()) != nullptr) {
        unsigned long long start = 0;
        unsigned long long end = 0;
        unsigned long long flags = 0;
        if (std::sscanf(text.data(), "%llx %llx %llx", &start, &end, &flags) != 3) {
            throw PciError(std::string("no address ranges: ") + path.c_str());
        }
    }
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

bool readsSysfs(const pci_access& access) {
    return access.method == PCI_ACCESS_SYS_BUS_PCI;
}

std::vector<PciAddress> listedFunctions() {
    const DirectoryPtr directory = openDirectory(kPciDevicesDirectory);
    if (!directory) {
        throw PciError(std::string("cannot open ") + kPciDevicesDirectory);
    }
    std::vector<PciAddress> functions;
    while (const dirent* entry = nextEntry(*directory)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        PciAddress& each = functions.emplace_back();
        if (std::sscanf(entry->d_name, "%x:%x:%x.%x", &each.domain, &each.bus, &each.slot, &each.function) <
            4) {
            throw PciError(std::string("no PCI address: ") + kPciDevicesDirectory + "/" + entry->d_name);
        }
    }
    if (errno != 0) {
        throw PciError(std::string("cannot read all of ") + kPciDevicesDirectory);
    }
    std::ranges::sort(functions);
    return functions;
}

void scanBus(pci_access& access) {
    std::vector<PciAddress> expected;
    if (readsSysfs(access)) {
        expected = listedFunctions();
    }
    pci_scan_bus(&access);

    // libpci takes a failure to read the list for its end.
    std::vector<PciAddress> found;
    for (const pci_dev* device = access.devices; device != nullptr; device = device->next) {
        found.push_back(addressOf(*device));
    }
    std::ranges::sort(found);
    std::vector<PciAddress> lacking;
    std::ranges::set_difference(expected, found, std::back_inserter(lacking));
    if (!std::ranges::all_of(lacking, isMissing)) {
        throw PciError(std::string("libpci has not read all of ") + kPciDevicesDirectory);
    }
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

bool hasVanished(const pci_dev& device) {
    return readsSysfs(*device.access) && isMissing(addressOf(device));
}

bool openConfig(pci_dev& device, int flags) {
    pci_access& access = *device.access;
    const bool forWriting = flags == O_RDWR;
    const bool isOpen = access.cached_dev == &device && access.fd >= 0 && (access.fd_rw != 0 || !forWriting);
    if (!readsSysfs(access) || isOpen) {
        return true;
    }
    UniqueFd(std::exchange(access.fd, -1)).reset();
    access.fd =
        openFile(FunctionPath(addressOf(device), "config").c_str(), flags).release();  // libpci closes it
    access.fd_rw = static_cast<int>(forWriting);
    access.fd_pos = 0;
    access.cached_dev = &device;
    return access.fd >= 0;
}

std::optional<u32> readRegister(pci_dev& device, int offset, int sizeBytes) {
    std::array<u8, sizeof(u32)> bytes{};
    if (pci_read_block(&device, offset, bytes.data(), sizeBytes) == 0) {
        return std::nullopt;
    }
    return bytes[0] | static_cast<u32>(bytes[1]) << 8 | static_cast<u32>(bytes[2]) << 16 |
           static_cast<u32>(bytes[3]) << 24;
}

PciDevicePtr getPciDevice(pci_access& access, unsigned bus, unsigned slot, unsigned function) {
    PciDevicePtr device(
        pci_get_dev(&access, 0, static_cast<int>(bus), static_cast<int>(slot), static_cast<int>(function)));
    (void)openConfig(*device, O_RDONLY);  // what cannot be read shows as all ones
    return device;
}

bool isPresent(pci_dev& device) {
    return pci_read_word(&device, PCI_VENDOR_ID) != kAbsentVendorId;
}

}  // namespace kv::os
