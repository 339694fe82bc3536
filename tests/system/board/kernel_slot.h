#pragma once

#include <map>
#include <memory>
#include <string>

#include "active/boards/board.h"
#include "os/mapping.h"
#include "os/unique_fd.h"

/**
 * A slot of a real kernel's PCI host (modules/kv_pci_host), with the board in it that acts behind the
 * registers. The board finds its registers as they are after power-on.
 */
class KernelSlot : public kvsim::BoardSlot {
 public:
    /** Throws std::system_error where the kernel has no such slot, or another program is the board. */
    KernelSlot(const kvsim::PciFunction& function, kvsim::EventLoop& loop, kvsim::PhysicalMemory& memory);
    ~KernelSlot() override;
    KernelSlot(const KernelSlot&) = delete;
    KernelSlot& operator=(const KernelSlot&) = delete;

    void setInterrupt(bool asserted) override;
    [[nodiscard]] std::byte* bar(unsigned index) override;
    [[nodiscard]] kvsim::PhysicalMemory& physicalMemory() override { return memory_; }
    [[nodiscard]] kvsim::EventLoop& loop() override { return loop_; }

 private:
    void powerOn();
    void serve();
    void tellLine();

    const kvsim::PciFunction& function_;
    kvsim::EventLoop& loop_;
    kvsim::PhysicalMemory& memory_;
    std::string name_;
    kv::os::UniqueFd line_;
    std::map<unsigned, kv::os::Mapping> bars_;
    std::uint32_t unmasksSeen_ = 0;
    bool isAsserted_ = false;
    std::unique_ptr<kvsim::Board> board_;
};
