#include <array>
#include <cstdio>
#include <cstdlib>

#include <kv/diagnostics.h>

#include "os/cancellation.h"
#include "target/kv_target_internal.h"

namespace {

constexpr const char* kTemperatureFile = "/sys/class/hwmon/hwmon0/temp1_input";

// The name is what the customer bought, the type is the board: several boards share a name.
constexpr std::array kMarketingNames = {
    "Summit real-time target machine",          // Alder
    "Summit Prime real-time target machine",    // Birch
    "Summit Prime+ real-time target machine",   // Quartz
    "Keystone real-time target machine",        // Keystone
    "Keystone real-time target machine",        // Keystone_TopLayer
    "Rambler real-time target machine",         // RamblerV2
    "Summit Lanes+ real-time target machine",   // Fir
    "Cubit real-time target machine",           // Cubit
    "Summit real-time target machine",          // Hazel
    "Rambler Rugged real-time target machine",  // RamblerRugged
    "Scholar real-time target machine",         // Scholar2
    "Summit real-time target machine",          // Kapok
    "Rambler real-time target machine (R3)",    // RamblerV3
    "Summit real-time target machine (S3)",     // Larch
    "Summit Prime real-time target machine",    // Maple
    "Cubit real-time target machine",           // Nutmeg
    "Ember real-time target machine",           // Olive
};
static_assert(kMarketingNames.size() == NonKelvaro);

kv_TargetType kv_getTargetTypeArm() {
    return Olive;
}

}  // namespace

const char* kv::marketingName(kv_TargetType type) {
    return type < kMarketingNames.size() ? kMarketingNames[type] : "NonKelvaro";
}

kv_TargetType kv_getTargetType(void) {
    return kv_getTargetTypeArm();
}

const char* kv_getTargetMarketingName(void) {
    return kv::marketingName(kv_getTargetType());
}

int32_t kv_getCpuTemperature(void) {
    const kv::os::CancellationHold hold;
    std::array<char, 16> text{};
    std::FILE* file = std::fopen(kTemperatureFile, "r");
    if (file == nullptr) {
        kv_printf(kv_error, "Cannot open file: %s\n", kTemperatureFile);
        return -1;
    }
    (void)std::fgets(text.data(), text.size(), file);  // an empty file leaves the text empty
    std::fclose(file);
    if (text.front() == '\0') {
        kv_printf(kv_error, "File temp1_input is empty");  // kept without its newline, so it never comes out
        return -1;
    }
    const auto milliDegrees = static_cast<int32_t>(std::strtol(text.data(), nullptr, 10));
    return milliDegrees / 1000;
}
