#include "active/pci_drivers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "host/tree_writer.h"
#include "layout/machine_layout.h"
#include "layout/soc_layout.h"

namespace kvsim {

namespace {

constexpr unsigned kWriteOnly = 0200;

}  // namespace

PciDrivers::PciDrivers(MachineCore& core, const std::vector<std::unique_ptr<PciSlot>>& slots) : core_(core) {
    for (const auto& slot : slots) {
        devices_.push_back({.slot = *slot});
    }
    for (Device& device : devices_) {
        if (const std::string driver = pciDriverOf(device.slot.function()); !driver.empty()) {
            holdFromStart(device, driver);
        }
    }
    for (const PciDriver& described : core.description.pciDrivers) {
        Driver& driver = load(described.name);
        for (const auto& [vendor, deviceId] : described.identities) {
            driver.identities.push_back({.vendor = vendor, .device = deviceId});
        }
    }
    for (const auto& driver : drivers_) {
        putFiles(*driver);
    }
    const auto store = [this](std::string_view text) { return probe(text); };
    core_.files.put(std::string(kPciBusFolder) + "/drivers_probe",
                    std::make_shared<AttributeFile>(kWriteOnly, nullptr, store));
}

PciDrivers::Driver& PciDrivers::load(const std::string& name) {
    const auto loaded = std::ranges::find(drivers_, name, [](const auto& driver) { return driver->name; });
    return loaded != drivers_.end() ? **loaded
                                    : *drivers_.emplace_back(std::make_unique<Driver>(Driver{.name = name}));
}

void PciDrivers::holdFromStart(Device& device, const std::string& name) {
    Driver& driver = load(name);
    const PciFunction& function = device.slot.function();
    driver.identities.push_back({.vendor = function.vendor, .device = function.device});
    device.showsHandler = isFirstHandler(function, driver);
    device.driver = &driver;
    if (name == kUioDriver && device.slot.canInterrupt()) {
        makeUioDevice(device);
    }
}

void PciDrivers::putFiles(Driver& driver) {
    using Store = int (PciDrivers::*)(Driver&, std::string_view);
    constexpr std::array<std::pair<const char*, Store>, 4> kFiles = {
        {{"/bind", &PciDrivers::bind},
         {"/unbind", &PciDrivers::unbind},
         {"/new_id", &PciDrivers::addIdentity},
         {"/remove_id", &PciDrivers::removeIdentity}}};
    for (const auto& [file, store] : kFiles) {
        core_.files.put(pciDriverPath(driver.name) + file,
                        std::make_shared<AttributeFile>(
                            kWriteOnly, nullptr, [this, &driver, store = store](std::string_view text) {
                                return (this->*store)(driver, text);
                            }));
    }
}

/* ---- Identities ---- */

std::optional<PciDrivers::Identity> PciDrivers::parse(std::string_view text) {
    Identity identity;
    const int fields = std::sscanf(std::string(text).c_str(), "%x %x %x %x %x %x", &identity.vendor,
                                   &identity.device, &identity.subsystemVendor, &identity.subsystemDevice,
                                   &identity.classCode, &identity.classMask);
    return fields < 2 ? std::nullopt : std::optional(identity);
}

PciDrivers::Identity PciDrivers::identityOf(const PciFunction& function) {
    return {.vendor = function.vendor,
            .device = function.device,
            .subsystemVendor = function.subsystemVendor,
            .subsystemDevice = function.subsystemDevice,
            .classCode = function.classCode};
}

bool PciDrivers::matches(const Identity& wanted, const Identity& device) {
    return covers(wanted.vendor, device.vendor) && covers(wanted.device, device.device) &&
           covers(wanted.subsystemVendor, device.subsystemVendor) &&
           covers(wanted.subsystemDevice, device.subsystemDevice) &&
           ((wanted.classCode ^ device.classCode) & wanted.classMask) == 0;
}

bool PciDrivers::knows(const Driver& driver, const Identity& device) {
    const auto matchesDevice = [&device](const Identity& identity) { return matches(identity, device); };
    return std::ranges::any_of(driver.identities, matchesDevice) ||
           std::ranges::any_of(driver.added, matchesDevice);
}

int PciDrivers::addIdentity(Driver& driver, std::string_view text) {
    const auto identity = parse(text);
    if (!identity) {
        return EINVAL;
    }
    if (knows(driver, *identity)) {
        return EEXIST;
    }
    driver.added.push_back(*identity);
    for (Device& device : devices_) {
        if (device.driver == nullptr && matches(*identity, identityOf(device.slot.function()))) {
            (void)take(device, driver);  // one that refuses does not keep the others from being bound
        }
    }
    return 0;
}

int PciDrivers::removeIdentity(Driver& driver, std::string_view text) {
    const auto wanted = parse(text);
    if (!wanted) {
        return EINVAL;
    }
    const auto identity = std::ranges::find_if(driver.added, [&wanted](const Identity& each) {
        return each.vendor == wanted->vendor && each.device == wanted->device &&
               covers(wanted->subsystemVendor, each.subsystemVendor) &&
               covers(wanted->subsystemDevice, each.subsystemDevice) &&
               ((each.classCode ^ wanted->classCode) & wanted->classMask) == 0;
    });
    if (identity == driver.added.end()) {
        return ENODEV;
    }
    driver.added.erase(identity);
    return 0;
}

/* ---- Binding ---- */

PciDrivers::Device* PciDrivers::find(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    const auto device = std::ranges::find(
        devices_, text, [](const Device& each) { return std::string_view(each.slot.name()); });
    return device == devices_.end() ? nullptr : &*device;
}

int PciDrivers::bind(Driver& driver, std::string_view text) {
    Device* const device = find(text);
    if (device == nullptr || !knows(driver, identityOf(device->slot.function()))) {
        return ENODEV;
    }
    return device->driver != nullptr ? EBUSY : take(*device, driver);
}

int PciDrivers::unbind(Driver& driver, std::string_view text) {
    Device* const device = find(text);
    if (device == nullptr || device->driver != &driver) {
        return ENODEV;
    }
    release(*device);
    return 0;
}

int PciDrivers::probe(std::string_view text) {
    Device* const device = find(text);
    if (device == nullptr) {
        return ENODEV;
    }
    for (auto driver = drivers_.begin(); device->driver == nullptr && driver != drivers_.end(); ++driver) {
        if (knows(**driver, identityOf(device->slot.function()))) {
            (void)take(*device, **driver);  // the next one may take what this one refuses
        }
    }
    return 0;
}

int PciDrivers::take(Device& device, const Driver& driver) {
    const bool isUio = driver.name == kUioDriver;
    PciSlot& slot = device.slot;
    if (isUio && !slot.canInterrupt()) {
        return ENODEV;
    }
    const bool showsHandler = isFirstHandler(slot.function(), driver);
    const FileTree tree = bindingOf(slot.function(), driver, showsHandler);
    removeTree(tree, slot.path());
    writeTree(tree);
    slot.takeForDriver();
    slot.setAttribute("uevent", pciUevent(slot.function(), driver.name));
    device.driver = &driver;
    device.showsHandler = showsHandler;
    if (isUio) {
        makeUioDevice(device);
    }
    return 0;
}

bool PciDrivers::isFirstHandler(const PciFunction& function, const Driver& driver) const {
    return function.irq != 0 && std::ranges::none_of(devices_, [&](const Device& each) {
               return each.driver == &driver && each.slot.function().irq == function.irq;
           });
}

FileTree PciDrivers::bindingOf(const PciFunction& function, const Driver& driver, bool showsHandler) const {
    FileTree tree = layOutPciBinding(core_.description, function, driver.name);
    if (showsHandler) {
        tree.addFolder(interruptFolder(function.irq) + "/" + driver.name);
    }
    return tree;
}

void PciDrivers::release(Device& device) {
    PciSlot& slot = device.slot;
    slot.serveInterrupt(nullptr);
    device.uio.reset();
    removeTree(bindingOf(slot.function(), *device.driver, device.showsHandler), slot.path());
    slot.setAttribute("uevent", pciUevent(slot.function(), ""));
    slot.releaseFromDriver();
    device.driver = nullptr;
}

void PciDrivers::makeUioDevice(Device& device) {
    auto number = static_cast<unsigned>(core_.description.axiDevices.size());
    const auto isTaken = [&number](const Device& each) { return each.uio && each.uio->number() == number; };
    while (std::ranges::any_of(devices_, isTaken)) {
        ++number;
    }
    device.uio = std::make_unique<UioDevice>(core_.files, number, device.slot.path());
    device.slot.serveInterrupt(device.uio->file());
}

}  // namespace kvsim
