#include "active/pci_config.h"

#include <algorithm>

extern "C" {
#include <linux/pci_regs.h>
}

namespace kvsim {

namespace {

std::uint16_t commandIn(const std::string& bytes) {
    const auto byte = [&bytes](std::size_t offset) { return static_cast<unsigned char>(bytes[offset]); };
    return static_cast<std::uint16_t>(byte(PCI_COMMAND) | byte(PCI_COMMAND + 1) << 8);
}

void setStatusOfInterrupt(std::string& bytes, bool asserted) {
    const auto others = static_cast<unsigned char>(bytes[PCI_STATUS]) & ~unsigned{PCI_STATUS_INTERRUPT};
    bytes[PCI_STATUS] = static_cast<char>(others | (asserted ? unsigned{PCI_STATUS_INTERRUPT} : 0));
}

bool isInterruptShown(const std::string& bytes) {
    return (static_cast<unsigned char>(bytes[PCI_STATUS]) & PCI_STATUS_INTERRUPT) != 0;
}

}  // namespace

class ConfigSpace::Opened : public OpenFile {
 public:
    explicit Opened(std::shared_ptr<ConfigSpace> space) : space_(std::move(space)) {}

    void read(const ReadRequest& request, std::shared_ptr<PendingRead> read) override {
        const std::string_view bytes = space_->bytes_;
        read->answer(request.offset < bytes.size() ? bytes.substr(request.offset, request.sizeBytes)
                                                   : std::string_view());
    }

    int write(std::string_view bytes, std::uint64_t offset) override { return space_->write(bytes, offset); }

 private:
    std::shared_ptr<ConfigSpace> space_;
};

std::unique_ptr<OpenFile> ConfigSpace::open(int& /*error*/) {
    return std::make_unique<Opened>(shared_from_this());
}

std::uint16_t ConfigSpace::command() const {
    return commandIn(bytes_);
}

void ConfigSpace::setCommand(std::uint16_t command) {
    const char bytes[] = {static_cast<char>(command & 0xFF), static_cast<char>(command >> 8)};
    write({bytes, sizeof bytes}, PCI_COMMAND);
}

bool ConfigSpace::isInterruptDisabled() const {
    return (command() & PCI_COMMAND_INTX_DISABLE) != 0;
}

void ConfigSpace::showInterrupt(bool asserted) {
    setStatusOfInterrupt(bytes_, asserted);
}

int ConfigSpace::write(std::string_view bytes, std::uint64_t offset) {
    if (offset >= bytes_.size()) {
        return -EFBIG;
    }
    const std::size_t count = std::min(bytes.size(), bytes_.size() - offset);
    std::string written = bytes_;
    written.replace(offset, count, bytes, 0, count);
    const bool unmasks = isInterruptDisabled() && (commandIn(written) & PCI_COMMAND_INTX_DISABLE) == 0;
    if (unmasks && beforeUnmask) {
        beforeUnmask();
    }
    setStatusOfInterrupt(written, isInterruptShown(bytes_));  // read only, and may have changed just now
    bytes_ = std::move(written);
    if (unmasks && afterUnmask) {
        afterUnmask();
    }
    return static_cast<int>(count);
}

}  // namespace kvsim
