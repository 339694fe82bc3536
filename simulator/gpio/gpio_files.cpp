#include <algorithm>
#include <array>
#include <cerrno>

#include "gpio/gpiod_types.h"

namespace kvsim::gpio {

namespace {

bool writeAll(int flags, const std::string& path, const std::string& text) {
    const kv::os::UniqueFd file = kv::os::openFile(path, flags);
    return file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           ((flags & O_APPEND) != 0 || ::ftruncate(file.get(), static_cast<off_t>(text.size())) == 0);
}

}  // namespace

bool readLine(const std::string& path, std::string& text) {
    const kv::os::UniqueFd file = kv::os::openFile(path, O_RDONLY);
    std::array<char, 256> bytes;
    const ssize_t count = file ? ::read(file.get(), bytes.data(), bytes.size()) : -1;
    if (count < 0) {
        return false;
    }
    text.assign(bytes.data(), static_cast<std::size_t>(count));
    text.resize(std::min(text.find('\n'), text.size()));
    return true;
}

bool writeLine(const std::string& path, const std::string& text) {
    return writeAll(O_WRONLY, path, text + "\n");
}

bool appendLine(const std::string& path, const std::string& text) {
    return writeAll(O_WRONLY | O_APPEND, path, text + "\n");
}

bool refuse(int error) {
    errno = error;
    return false;
}

int failWith(int error) {
    errno = error;
    return -1;
}

}  // namespace kvsim::gpio
