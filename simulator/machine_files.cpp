#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "host/private_mounts.h"
#include "kvsim/machine.h"
#include "layout/machine_layout.h"
#include "os/unique_fd.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

[[noreturn]] void fail(const char* what, const std::string& path) {
    throw std::system_error(errno, std::generic_category(), std::string("cannot ") + what + " " + path);
}

UniqueFd openOrFail(const std::string& path, int flags) {
    UniqueFd file(::open(path.c_str(), flags | O_CLOEXEC, 0644));
    if (!file) {
        fail("open", path);
    }
    return file;
}

template <typename Value>
Value readAt(const std::string& path, std::uint64_t offset) {
    Value value{};
    const UniqueFd file = openOrFail(path, O_RDONLY);
    errno = ERANGE;  // what a short read means here
    if (::pread(file.get(), &value, sizeof(value), static_cast<off_t>(offset)) != sizeof(value)) {
        fail("read", path);
    }
    return value;
}

template <typename Value>
void writeAt(const std::string& path, std::uint64_t offset, Value value) {
    const UniqueFd file = openOrFail(path, O_WRONLY);
    if (::pwrite(file.get(), &value, sizeof(value), static_cast<off_t>(offset)) != sizeof(value)) {
        fail("write", path);
    }
}

struct Place {
    std::string path;
    std::uint64_t offset;
};

Place placeOf(const std::string& functionPath, const std::vector<Bar>& bars, unsigned index,
              std::uint32_t offset) {
    const auto bar = std::ranges::find(bars, index, &Bar::index);
    if (bar == bars.end() || offset >= bar->sizeBytes) {
        throw std::out_of_range(functionPath + " has no BAR " + std::to_string(index) + " with an offset " +
                                std::to_string(offset));
    }
    if (isReachedThroughMemoryDevice(*bar)) {
        return {kMemoryDevice, bar->address + offset};
    }
    return {functionPath + "/resource" + std::to_string(index), offset};
}

}  // namespace

PciFunctionFiles::PciFunctionFiles(const PciFunction& description)
    : path_(pciPath(description)), bars_(description.bars) {}

std::uint8_t PciFunctionFiles::config8(unsigned offset) const {
    return readAt<std::uint8_t>(path_ + "/config", offset);
}

std::uint16_t PciFunctionFiles::config16(unsigned offset) const {
    return readAt<std::uint16_t>(path_ + "/config", offset);
}

std::uint32_t PciFunctionFiles::config32(unsigned offset) const {
    return readAt<std::uint32_t>(path_ + "/config", offset);
}

void PciFunctionFiles::setConfig8(unsigned offset, std::uint8_t value) const {
    writeAt(path_ + "/config", offset, value);
}

void PciFunctionFiles::setConfig16(unsigned offset, std::uint16_t value) const {
    writeAt(path_ + "/config", offset, value);
}

void PciFunctionFiles::setConfig32(unsigned offset, std::uint32_t value) const {
    writeAt(path_ + "/config", offset, value);
}

std::uint32_t PciFunctionFiles::barWord(unsigned bar, std::uint32_t offset) const {
    const Place place = placeOf(path_, bars_, bar, offset);
    return readAt<std::uint32_t>(place.path, place.offset);
}

void PciFunctionFiles::setBarWord(unsigned bar, std::uint32_t offset, std::uint32_t value) const {
    const Place place = placeOf(path_, bars_, bar, offset);
    writeAt(place.path, place.offset, value);
}

void PciFunctionFiles::raiseInterrupt() const {
    writeAt(path_ + "/raise_interrupt", 0, '1');
}

PciFunctionFiles Machine::pci(std::uint8_t bus, std::uint8_t slot, std::uint8_t function) const {
    for (const PciFunction& described : description_.pciFunctions) {
        if (described.bus == bus && described.slot == slot && described.function == function) {
            return PciFunctionFiles(described);
        }
    }
    throw std::out_of_range("the machine has no function at " +
                            pciName({.bus = bus, .slot = slot, .function = function}));
}

std::string Machine::read(const std::string& path) {
    const UniqueFd file = openOrFail(path, O_RDONLY);
    std::string text;
    char block[4096];
    ssize_t count = 0;
    while ((count = ::read(file.get(), block, sizeof(block))) > 0) {
        text.append(block, static_cast<std::size_t>(count));
    }
    if (count < 0) {
        fail("read", path);
    }
    return text;
}

void Machine::write(const std::string& path, const std::string& text) {
    if (const auto folder = std::filesystem::path(path).parent_path(); !folder.empty()) {
        std::filesystem::create_directories(folder);
    }
    const UniqueFd file = openOrFail(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("write", path);
    }
}

void Machine::remove(const std::string& path) {
    std::error_code error;
    const std::uintmax_t count = std::filesystem::remove_all(path, error);
    if (error == std::errc::device_or_resource_busy) {
        hideFolder(path);
    } else if (error || count == 0) {
        errno = error ? error.value() : ENOENT;
        fail("remove", path);
    }
}

void Machine::replaceByFolder(const std::string& path) {
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
}

}  // namespace kvsim
