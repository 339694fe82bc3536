#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "active/pci_slot.h"
#include "active/uio_device.h"

namespace kvsim {

/** The kernel's driver core for PCI: which driver knows, and which holds, which function. */
class PciDrivers {
 public:
    /** Binds nothing but what the description says; drivers make their files. */
    PciDrivers(MachineCore& core, const std::vector<std::unique_ptr<PciSlot>>& slots);

 private:
    static constexpr std::uint32_t kAny = UINT32_MAX;

    /** As a driver's table of identities has them. */
    struct Identity {
        std::uint32_t vendor = 0;
        std::uint32_t device = 0;
        std::uint32_t subsystemVendor = kAny;
        std::uint32_t subsystemDevice = kAny;
        std::uint32_t classCode = 0;
        std::uint32_t classMask = 0;
    };

    struct Driver {
        std::string name;
        std::vector<Identity> identities = {};
        /** Those that were written to new_id. */
        std::vector<Identity> added = {};
    };

    /** A function and what a driver has made of it. */
    struct Device {
        PciSlot& slot;
        const Driver* driver = nullptr;
        std::unique_ptr<UioDevice> uio = {};
        /** Whether the folder of its handler in /proc/irq is this function's own. */
        bool showsHandler = false;
    };

    static bool covers(std::uint32_t wanted, std::uint32_t value) {
        return wanted == kAny || wanted == value;
    }
    static std::optional<Identity> parse(std::string_view text);
    static bool matches(const Identity& identity, const Identity& device);
    static Identity identityOf(const PciFunction& function);
    static bool knows(const Driver& driver, const Identity& device);

    Driver& load(const std::string& name);
    void holdFromStart(Device& device, const std::string& driver);
    void putFiles(Driver& driver);

    // What is written to the files. Each gives 0 or an error number, as the kernel does.
    int bind(Driver& driver, std::string_view text);
    int unbind(Driver& driver, std::string_view text);
    int addIdentity(Driver& driver, std::string_view text);
    int removeIdentity(Driver& driver, std::string_view text);
    int probe(std::string_view text);

    Device* find(std::string_view text);
    int take(Device& device, const Driver& driver);
    /** Whether no other function on its line has a handler of the driver's name. */
    [[nodiscard]] bool isFirstHandler(const PciFunction& function, const Driver& driver) const;
    /** The files that are there while a driver holds a function. */
    [[nodiscard]] FileTree bindingOf(const PciFunction& function, const Driver& driver,
                                     bool showsHandler) const;
    void release(Device& device);
    void makeUioDevice(Device& device);

    MachineCore& core_;
    std::vector<std::unique_ptr<Driver>> drivers_;
    std::vector<Device> devices_;
};

}  // namespace kvsim
