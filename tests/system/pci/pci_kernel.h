#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/pci.h>

#include "support/log_capture.h"
#include "system/kernel_files.h"

namespace kv::test {

constexpr const char* kFunctions = "/sys/bus/pci/devices";

/** Vendor and device id, upper and lower half. */
enum Board : uint32_t {
    kController = 0x808610d3,    /**< an Ethernet controller: five, four of them on one module */
    kTwoFunctions = 0x8086100e,  /**< functions 0 and 3 of one slot */
    kSmallBar = 0x10ec8139,      /**< two, each with a memory BAR of 256 bytes in the same page; no driver */
    kInterrupting = 0x123411e8,  /**< three, which interrupt when they are told to; no driver */
    kResettable = 0x1b360010,    /**< has registers and a function-level reset; no driver */
    kMemory = 0x1af41110,        /**< BAR 2 is memory above 4 GiB; no driver */
    kSerialCard = 0x1b360004,    /**< four ports behind one BAR of port I/O */
    kDownstreamPort = 0x104c8233 /**< of a switch */
};
constexpr uint16_t vendorOf(Board board) {
    return static_cast<uint16_t>(board >> 16);
}
constexpr uint16_t deviceOf(Board board) {
    return static_cast<uint16_t>(board & 0xFFFF);
}

/** Writes a text at once. @return 0 or the errno value */
inline int writeText(const std::filesystem::path& file, const std::string& text) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int result = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
    ::close(fd);
    return result;
}

/** A function as the kernel shows it in sysfs. */
class KernelFunction {
 public:
    explicit KernelFunction(std::string name) : name_(std::move(name)) {
        if (std::sscanf(name_.c_str(), "0000:%x:%x.%x", &bus_, &slot_, &function_) != 3) {
            ADD_FAILURE() << name_ << " is no function of domain 0";
        }
    }

    /** All functions in ascending order of bus, slot and function. */
    static std::vector<KernelFunction> all() {
        std::vector<KernelFunction> functions;
        for (const auto& entry : std::filesystem::directory_iterator(kFunctions)) {
            functions.emplace_back(entry.path().filename());
        }
        std::ranges::sort(functions, {}, &KernelFunction::name_);
        return functions;
    }

    static std::vector<KernelFunction> all(Board board) {
        std::vector<KernelFunction> functions = all();
        std::erase_if(functions, [board](const KernelFunction& each) {
            return (each.number("vendor") << 16 | each.number("device")) != board;
        });
        return functions;
    }

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] unsigned bus() const { return bus_; }
    [[nodiscard]] unsigned slot() const { return slot_; }
    [[nodiscard]] unsigned function() const { return function_; }

    [[nodiscard]] std::filesystem::path path(const std::string& file) const {
        return std::filesystem::path(kFunctions) / name_ / file;
    }
    [[nodiscard]] bool has(const std::string& file) const { return std::filesystem::exists(path(file)); }
    [[nodiscard]] std::string text(const std::string& file) const { return readText(path(file)); }
    [[nodiscard]] uint32_t number(const std::string& file) const {
        return static_cast<uint32_t>(std::stoul(text(file), nullptr, 0));
    }

    /** The name of the bridge in front of it; that of something else on bus 0. */
    [[nodiscard]] std::string parent() const {
        return std::filesystem::canonical(path(".")).parent_path().filename();
    }
    /** The driver that holds it; empty where none does. */
    [[nodiscard]] std::string driver() const {
        return has("driver") ? std::filesystem::canonical(path("driver")).filename().string() : "";
    }
    /** Its devices of a class, such as the interfaces of a controller, by name. */
    [[nodiscard]] std::vector<std::string> devices(const std::string& className) const {
        std::vector<std::string> names;
        if (has(className)) {
            for (const auto& entry : std::filesystem::directory_iterator(path(className))) {
                names.push_back(entry.path().filename());
            }
        }
        std::ranges::sort(names);
        return names;
    }

    struct Resource {
        uint64_t first = 0;
        uint64_t last = 0;
        uint64_t flags = 0;

        [[nodiscard]] uint64_t size() const { return last == 0 ? 0 : last - first + 1; }
    };
    [[nodiscard]] Resource resource(unsigned bar) const {
        std::ifstream lines(path("resource"));
        Resource resource;
        for (unsigned line = 0; line <= bar; ++line) {
            lines >> std::hex >> resource.first >> resource.last >> resource.flags;
        }
        return resource;
    }

    /** A word of the configuration space, as the function has it now. */
    [[nodiscard]] uint16_t config16(unsigned offset) const {
        uint16_t value = 0;
        const int fd = ::open(path("config").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(::pread(fd, &value, sizeof value, offset), static_cast<ssize_t>(sizeof value));
        ::close(fd);
        return value;
    }
    void setConfig16(unsigned offset, uint16_t value) const {
        const int fd = ::open(path("config").c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(::pwrite(fd, &value, sizeof value, offset), static_cast<ssize_t>(sizeof value));
        ::close(fd);
    }

 private:
    std::string name_;
    unsigned bus_ = 0;
    unsigned slot_ = 0;
    unsigned function_ = 0;
};

inline std::ostream& operator<<(std::ostream& out, const KernelFunction& function) {
    return out << function.name();
}

/** The library's record of the function 0 of a slot, looked up there. */
inline kv_PCIDevice recordOf(const KernelFunction& function) {
    constexpr auto kAny = KV_PCI_ANY_SUBSYSTEM;
    kv_PCIDevice record{};
    EXPECT_EQ(kvPCI_getDeviceAtSlot(static_cast<uint16_t>(function.number("vendor")),
                                    static_cast<uint16_t>(function.number("device")), kAny, kAny,
                                    static_cast<uint16_t>(function.bus()),
                                    static_cast<uint16_t>(function.slot()), &record),
              0)
        << function;
    return record;
}

}  // namespace kv::test
