#include <array>
#include <new>
#include <sys/stat.h>

#include <kv/diagnostics.h>
#include <kv/process.h>
#include <kv/serial.h>

#include "os/cancellation.h"
#include "os/shell.h"
#include "os/unique_fd.h"
#include "runtime/kv_root.h"
#include "serial/kv_serial_gpio.h"
#include "serial/kv_serial_internal.h"
#include "serial/kv_serial_tables.h"

namespace {

using kv::serial::GpioLines;
using kv::serial::kPorts;
using kv::serial::OnboardPort;

constexpr int kClosed = -1;
constexpr mode_t kEveryUser = 0666;

struct OnboardPorts {
    std::array<int, kPorts> fds;
    std::string gpioChipName;
};

/** Never destroyed: exit handlers close ports too. */
OnboardPorts& onboardPorts() {
    static union Kept {
        Kept() : ports{{kClosed, kClosed, kClosed, kClosed, kClosed, kClosed}, {}} {}
        ~Kept() {}
        OnboardPorts ports;
    } g_onboardPorts;
    return g_onboardPorts.ports;
}

/** The place of a port's descriptor; null for a port that does not exist. */
int* slotOf(int port) {
    return port >= 1 && port <= kPorts ? &onboardPorts().fds[static_cast<std::size_t>(port) - 1] : nullptr;
}

using NodeName = std::array<char, 20>;

/** A name that is not found stays empty. */
bool findNode(kv_TargetType type, int port, NodeName& node) {
    const auto address = kv::serial::baseAddress(type, port);
    return address && kv_findSerialDeviceByPort(*address, node.data(), node.size()) == 0;
}

void letEveryUserOpen(const char* node) {
    const kv_beRootObj root;
    (void)::chmod(node, kEveryUser);  // the open that follows tells whether it matters
}

/** Takes the transmit-enable line and the second line of its chip; logs where one is not there. */
bool takeLines(int port, const OnboardPort& onboard, GpioLines& lines) {
    if (lines.findAndTake(onboard.transmitLine, 1) != 0) {
        kv_printf(kv_error, "[port %d] GPIO line %s not found\n", port, onboard.transmitLine);
        return false;
    }
    return kv::serial::isAvailable(port, lines.chip(), lines.take(onboard.secondLine, 0));
}

/** Switches the port's transmitter on. Once both lines are taken, the chip's name counts for all ports. */
bool prepare(int port, const OnboardPort& onboard) {
    if (onboard.stopConsole != nullptr) {
        (void)kv::os::runShell(onboard.stopConsole);  // there may be no console to stop
    }
    GpioLines lines;
    if (!takeLines(port, onboard, lines)) {
        return false;
    }
    std::string& chipName = onboardPorts().gpioChipName;
    if (chipName.empty()) {
        chipName = lines.chip();
    }
    letEveryUserOpen(onboard.node);
    return kv::serial::isAvailable(port, lines.chip(), lines.drive());
}

}  // namespace

int kv::serial::openPort(kv_TargetType type, int port, int flags) {
    int* const slot = slotOf(port);
    if (slot == nullptr) {
        kv_printf(kv_error, "[port %d] Port number out of bounds: %d\n", port, port);
        return -1;
    }
    if (*slot != kClosed) {
        return *slot;
    }
    NodeName node{};
    if (!findNode(type, port, node)) {
        kv_printf(kv_error, "[port %d] not found device %s\n", port, node.data());
        return -1;
    }
    const OnboardPort* const onboard = findOnboardPort(node.data());
    if (onboard == nullptr) {
        kv_printf(kv_error, "Serial device %s not recognized\n", node.data());
        return -1;
    }
    if (!prepare(port, *onboard)) {
        return -1;
    }
    const int fd = kv_openAsRoot(node.data(), flags);
    if (fd == -1) {
        kv_printf(kv_error, "[port %d] Failed to open device %s\n", port, node.data());
        return -1;
    }
    *slot = fd;  // until kv_serial_port_close()
    return fd;
}

int kv::serial::descriptorOf(int port) {
    const int* const slot = slotOf(port);
    return slot == nullptr ? kClosed : *slot;
}

const std::string& kv::serial::gpioChipName() {
    return onboardPorts().gpioChipName;
}

int kv_serial_port_open(int port, int flags) try {
    const kv::os::CancellationHold hold;
    return kv::serial::openPort(kv_getTargetType(), port, flags);
} catch (const std::bad_alloc&) {
    return -1;
}

int kv_serial_port_close(int port) {
    const kv::os::CancellationHold hold;
    int* const slot = slotOf(port);
    if (slot != nullptr && *slot >= 1) {  // descriptor 0 counts as closed
        const kv::os::UniqueFd closed(*slot);
        *slot = kClosed;
    }
    return 0;
}
