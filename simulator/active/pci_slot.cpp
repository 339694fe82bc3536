#include "active/pci_slot.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <sys/mman.h>

extern "C" {
#include <linux/pci_regs.h>
}

#include "layout/config_space.h"
#include "layout/format.h"
#include "layout/machine_layout.h"
#include "layout/page.h"
#include "os/unique_fd.h"

namespace kvsim {

namespace {

/** What a program has put in a file's place must not make the whole machine wait. */
constexpr int kPlainFilesOnly = O_NOFOLLOW | O_NONBLOCK;

}  // namespace

PciSlot::PciSlot(MachineCore& core, const PciFunction& function, const PciTopology& topology)
    : core_(core),
      function_(function),
      name_(pciName(function)),
      path_(pciDevicePath(function, topology)),
      enableCount_(isEnabled(function) ? 1 : 0),
      hasDriver_(!pciDriverOf(function).empty()) {
    core_.files.put(path_ + "/enable", std::make_shared<AttributeFile>(
                                           0644U, [this] { return std::to_string(enableCount_) + "\n"; },
                                           [this](std::string_view text) { return storeEnable(text); }));
    if (function.irq != 0) {
        config_ = std::make_shared<ConfigSpace>(configSpace(function, topology));
        config_->beforeUnmask = [this] { endService(); };
        config_->afterUnmask = [this] { lookAtLine(); };
        core_.files.put(path_ + "/config", config_);
        const auto raiseOne = [this](std::string_view) {
            raise();
            return 0;
        };
        core_.files.put(path_ + "/raise_interrupt",
                        std::make_shared<AttributeFile>(0200U, nullptr, raiseOne));
    }
    board_ = makeBoard(function_, *this);
}

PciSlot::~PciSlot() {
    if (config_) {  // programs may have it open still
        config_->beforeUnmask = nullptr;
        config_->afterUnmask = nullptr;
    }
}

/* ---- What drivers do ---- */

void PciSlot::takeForDriver() {
    hasDriver_ = true;
    enable();
    setAttribute("irq", std::to_string(function_.irq) + "\n");
}

void PciSlot::releaseFromDriver() {
    hasDriver_ = false;
    disable();
}

void PciSlot::enable() {
    if (++enableCount_ > 1) {
        return;
    }
    const bool hasIo = std::ranges::find(function_.bars, BarSpace::Io, &Bar::space) != function_.bars.end();
    changeCommand(PCI_COMMAND_MEMORY | (hasIo ? PCI_COMMAND_IO : 0U),
                  canInterrupt() ? PCI_COMMAND_INTX_DISABLE : 0);
}

void PciSlot::disable() {
    if (enableCount_ > 0 && --enableCount_ == 0) {
        changeCommand(0, PCI_COMMAND_MASTER);
    }
}

int PciSlot::storeEnable(std::string_view text) {
    unsigned wanted = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), wanted).ec != std::errc()) {
        return EINVAL;
    }
    if (hasDriver_) {
        return EBUSY;
    }
    if (wanted != 0) {
        enable();
    } else if (enableCount_ == 0) {
        return EIO;
    } else {
        disable();
    }
    return 0;
}

void PciSlot::setAttribute(const char* attribute, const std::string& text) {
    const kv::os::UniqueFd file =
        kv::os::openFile(path_ + "/" + attribute, O_WRONLY | O_TRUNC | kPlainFilesOnly);
    (void)!::write(file.get(), text.data(), text.size());  // nothing where a program has removed it
}

void PciSlot::changeCommand(unsigned set, unsigned clear) {
    const auto changed = [=](unsigned command) {
        return static_cast<std::uint16_t>((command | set) & ~clear);
    };
    if (config_) {
        config_->setCommand(changed(config_->command()));
        return;
    }
    // Where nothing interrupts, the configuration space is a plain file.
    const kv::os::UniqueFd config = kv::os::openFile(path_ + "/config", O_RDWR | kPlainFilesOnly);
    std::uint16_t command = 0;
    if (::pread(config.get(), &command, sizeof command, PCI_COMMAND) == sizeof command) {
        command = changed(command);
        (void)!::pwrite(config.get(), &command, sizeof command, PCI_COMMAND);
    }
}

void PciSlot::serveInterrupt(std::shared_ptr<UioFile> uio) {
    if (uio_) {  // programs may have it open still
        uio_->onFix = nullptr;
    }
    uio_ = std::move(uio);
    if (uio_) {
        // From now on the interrupt is masked on the board.
        uio_->onFix = [this] { changeCommand(0, PCI_COMMAND_INTX_DISABLE); };
    }
    lookAtLine();
}

/* ---- The interrupt line ---- */

void PciSlot::setInterrupt(bool asserted) {
    if (std::exchange(boardAsserts_, asserted) != asserted) {
        lookAtLine();
    }
}

void PciSlot::raise() {
    isRaised_ = true;
    lookAtLine();
}

void PciSlot::endService() {
    isInService_ = false;
    if (board_) {
        board_->interruptServed();
    }
}

void PciSlot::lookAtLine() {
    if (!config_) {
        return;
    }
    if (isAsserted() && uio_ && !config_->isInterruptDisabled()) {
        const bool wasRaised = std::exchange(isRaised_, false);
        if (!uio_->hasFix()) {
            config_->setCommand(config_->command() | PCI_COMMAND_INTX_DISABLE);
            isInService_ = isInService_ || wasRaised;
        } else if (board_) {
            board_->maskInterrupt(uio_->fix().type, uio_->fix().mask);
        }
        uio_->interrupt();
    }
    config_->showInterrupt(isAsserted());
}

/* ---- Memory ---- */

std::byte* PciSlot::bar(unsigned index) {
    const auto described = std::ranges::find(function_.bars, index, &Bar::index);
    if (described == function_.bars.end()) {
        return nullptr;
    }
    const bool isInPage = isReachedThroughMemoryDevice(*described);
    const std::uint64_t lead = isInPage ? described->address % kPageBytes : 0;
    kv::os::Mapping& mapping = bars_[index];
    if (!mapping) {
        const kv::os::UniqueFd file =
            kv::os::openFile(isInPage ? kMemoryDevice : path_ + format("/resource%u", index), O_RDWR);
        const std::uint64_t offset = isInPage ? described->address - lead : 0;
        const std::size_t length = lead + described->sizeBytes;
        mapping = kv::os::Mapping(::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(),
                                         static_cast<off_t>(offset)),
                                  length);
    }
    auto* const first = static_cast<std::byte*>(mapping.get());
    return first == nullptr ? nullptr : first + lead;
}

}  // namespace kvsim
