#include "board/kernel_slot.h"

#include <algorithm>
#include <cerrno>
#include <sys/mman.h>
#include <system_error>

#include "layout/machine_layout.h"

namespace {

using kv::os::UniqueFd;

constexpr const char* kLineFolder = "/sys/kernel/debug/kv_pci_host/";
constexpr const char* kDeviceFolder = "/sys/bus/pci/devices/";

UniqueFd openOrThrow(const std::string& path) {
    UniqueFd file = kv::os::openFile(path, O_RDWR);
    if (!file) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return file;
}

}  // namespace

KernelSlot::KernelSlot(const kvsim::PciFunction& function, kvsim::EventLoop& loop,
                       kvsim::PhysicalMemory& memory)
    : function_(function),
      loop_(loop),
      memory_(memory),
      name_(pciName(function)),
      line_(openOrThrow(kLineFolder + name_)) {
    powerOn();
    board_ = makeBoard(function_, *this);
    loop_.watch(line_.get(), [this] { serve(); });
}

KernelSlot::~KernelSlot() {
    loop_.forget(line_.get());
}

void KernelSlot::powerOn() {
    for (const kvsim::Bar& described : function_.bars) {
        auto* const words = reinterpret_cast<volatile std::uint32_t*>(bar(described.index));
        std::fill_n(words, described.sizeBytes / sizeof *words, 0);  // word by word, as registers want it
        for (const auto& [offset, value] : described.registers) {
            words[offset / sizeof *words] = value;
        }
    }
}

std::byte* KernelSlot::bar(unsigned index) {
    const auto described = std::ranges::find(function_.bars, index, &kvsim::Bar::index);
    if (described == function_.bars.end()) {
        return nullptr;
    }
    kv::os::Mapping& mapping = bars_[index];
    if (!mapping) {
        const UniqueFd file = openOrThrow(kDeviceFolder + name_ + "/resource" + std::to_string(index));
        mapping = kv::os::Mapping(
            ::mmap(nullptr, described->sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0),
            described->sizeBytes);
        if (!mapping) {
            throw std::system_error(errno, std::generic_category(), "mmap of a BAR of " + name_);
        }
    }
    return static_cast<std::byte*>(mapping.get());
}

void KernelSlot::setInterrupt(bool asserted) {
    isAsserted_ = asserted;
    tellLine();
}

/** The command register has let the interrupt through again. */
void KernelSlot::serve() {
    if (::read(line_.get(), &unmasksSeen_, sizeof unmasksSeen_) != sizeof unmasksSeen_) {
        throw std::system_error(errno, std::generic_category(), "the line of " + name_);
    }
    board_->interruptServed();
    tellLine();
}

void KernelSlot::tellLine() {
    const std::uint32_t state[] = {unmasksSeen_, isAsserted_ ? 1U : 0U};
    if (::write(line_.get(), state, sizeof state) != sizeof state) {
        throw std::system_error(errno, std::generic_category(), "the line of " + name_);
    }
}
