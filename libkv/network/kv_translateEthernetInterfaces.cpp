#include <cstdio>
#include <exception>
#include <string>

#include <kv/diagnostics.h>
#include <kv/network.h>
#include <kv/process.h>
#include <kv/target.h>

#include "network/kv_ethernet_devices.h"
#include "network/kv_ethernet_labels.h"
#include "network/kv_host_link.h"
#include "os/cancellation.h"

namespace {

constexpr const char* kSystemInformationFolder = "/usr/kelvaro/sysinfo";

int writeTranslationFile(const std::string& ethStr) {
    if (kv_fs_ensureDirExists(kSystemInformationFolder) != 0) {
        kv_printf(kv_error, "Failed to create directory: /usr/kelvaro/sysinfo\n");
        return -1;
    }
    std::FILE* file = std::fopen(kEthTranslateFile, "w+");
    if (file == nullptr) {
        kv_printf(kv_error, "Failed to create file: %s\n", kEthTranslateFile);
        return -1;
    }
    (void)std::fputs(ethStr.c_str(), file);  // what the disk does not take is not examined
    std::fclose(file);
    return 0;
}

}  // namespace

int kv_translateEthernetInterfaces(void) try {
    const kv::os::CancellationHold hold;
    const auto devices = getEthernetDevices();
    if (!devices) {
        return -1;
    }
    const kv_TargetType targetType = kv_getTargetType();
    std::string ethStr;
    if (appendAxiEthInterfaces(ethStr) != 0) {
        return -1;
    }
    appendPciEthInterfaces(ethStr, devices->nodes, targetType, pciInterfaceName);
    kv_printf(kv_debug, "%s: ethStr before labeling: %s\n", "kv_translateEthernetInterfaces", ethStr.c_str());
    nameOnboardPorts(ethStr, targetType);
    numberModulePorts(ethStr);
    return writeTranslationFile(ethStr);
} catch (const std::exception&) {
    return -1;
}
