#pragma once

#include <memory>

#include <systemd/sd-device.h>

namespace kv::os {

struct SdDeviceUnref {
    void operator()(sd_device* device) const noexcept { sd_device_unref(device); }
};
using SdDevicePtr = std::unique_ptr<sd_device, SdDeviceUnref>;

struct SdEnumeratorUnref {
    void operator()(sd_device_enumerator* enumerator) const noexcept {
        sd_device_enumerator_unref(enumerator);
    }
};
using SdEnumeratorPtr = std::unique_ptr<sd_device_enumerator, SdEnumeratorUnref>;

/** Finds a device by the kernel's names of its subsystem and of itself. Empty where there is none. */
inline SdDevicePtr findDevice(const char* subsystem, const char* sysname) noexcept {
    sd_device* device = nullptr;
    return SdDevicePtr(sd_device_new_from_subsystem_sysname(&device, subsystem, sysname) < 0 ? nullptr
                                                                                             : device);
}

/** @return an attribute's text without its newline, owned by the device; null when it cannot be read */
inline const char* attributeOf(sd_device& device, const char* attribute) noexcept {
    const char* text = nullptr;
    return sd_device_get_sysattr_value(&device, attribute, &text) < 0 ? nullptr : text;
}

/** @return the path of the device's node, owned by the device; null where it has none */
inline const char* nodeOf(sd_device& device) noexcept {
    const char* path = nullptr;
    return sd_device_get_devname(&device, &path) < 0 ? nullptr : path;
}

/** Makes an enumerator that finds every device. Empty where memory is exhausted. */
inline SdEnumeratorPtr newEnumerator() noexcept {
    sd_device_enumerator* enumerator = nullptr;
    return SdEnumeratorPtr(sd_device_enumerator_new(&enumerator) < 0 ? nullptr : enumerator);
}

}  // namespace kv::os
