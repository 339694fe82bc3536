#include <array>
#include <cstdlib>
#include <unistd.h>

#include <kv/target.h>

#include "os/cancellation.h"
#include "os/unique_fd.h"
#include "target/kv_target_internal.h"

namespace {

constexpr const char* kSerialNumberFile = "/sys/devices/platform/ember/rttm/system_serial";
constexpr int kSerialNumberSize = 16;

using SerialNumberText =
    std::array<char, kSerialNumberSize + 1>;  // a full record has no terminator of its own

bool readSerialNumber(SerialNumberText& serial) {
    serial.fill('\0');
    return readFromTextFile(kSerialNumberFile, serial.data(), kSerialNumberSize) >= 0;
}

int toNumber(const char* digits) {
    return static_cast<int>(std::strtol(digits, nullptr, 10));
}

/** The number of a record that begins with the letter of its kind. */
int prefixedSerialNumber(char kind) {
    SerialNumberText serial;
    if (!readSerialNumber(serial) || serial[0] != kind) {
        return -1;
    }
    return toNumber(&serial[1]);
}

}  // namespace

int readFromTextFile(const char* filename, char* buf, int nBytes) {
    const kv::os::UniqueFd file = kv::os::openFile(filename, O_RDONLY);
    if (!file) {
        return -1;
    }
    return static_cast<int>(::read(file.get(), buf, static_cast<std::size_t>(nBytes)));
}

int kv_getSerialNumber(void) {
    const kv::os::CancellationHold hold;
    SerialNumberText serial;
    if (!readSerialNumber(serial) || serial[0] < '0' || serial[0] > '9') {
        return -1;
    }
    return toNumber(serial.data());
}

int kv_getSerialNumberInternal(void) {
    const kv::os::CancellationHold hold;
    return prefixedSerialNumber('i');
}

int kv_getSerialNumberSupplier(void) {
    const kv::os::CancellationHold hold;
    return prefixedSerialNumber('s');
}
