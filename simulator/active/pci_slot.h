#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "active/active_machine.h"
#include "active/boards/board.h"
#include "active/pci_config.h"
#include "active/uio_device.h"
#include "layout/pci_topology.h"
#include "os/mapping.h"

namespace kvsim {

/** A PCI function as it acts: its interrupt line, the memory of its BARs and the board behind them. */
class PciSlot : public BoardSlot {
 public:
    PciSlot(MachineCore& core, const PciFunction& function, const PciTopology& topology);
    ~PciSlot() override;

    [[nodiscard]] const PciFunction& function() const { return function_; }
    [[nodiscard]] const std::string& name() const { return name_; }
    /** Its folder, below its bridge's. */
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] bool canInterrupt() const { return config_ != nullptr; }

    /** What the kernel does to a function for a driver that takes it, and for one that lets it go. */
    void takeForDriver();
    void releaseFromDriver();
    /** Replaces the text of an attribute that is a plain file. */
    void setAttribute(const char* attribute, const std::string& text);
    /** The UIO device whose driver serves the interrupt from now on; null for none. */
    void serveInterrupt(std::shared_ptr<UioFile> uio);

    void setInterrupt(bool asserted) override;
    [[nodiscard]] std::byte* bar(unsigned index) override;
    [[nodiscard]] PhysicalMemory& physicalMemory() override { return core_.memory; }
    [[nodiscard]] EventLoop& loop() override { return core_.loop; }

 private:
    void changeCommand(unsigned set, unsigned clear);
    void enable();
    void disable();
    int storeEnable(std::string_view text);
    void raise();
    void endService();
    void lookAtLine();
    [[nodiscard]] bool isAsserted() const { return boardAsserts_ || isRaised_ || isInService_; }

    MachineCore& core_;
    const PciFunction& function_;
    std::string name_;
    std::string path_;
    std::shared_ptr<ConfigSpace> config_;
    std::shared_ptr<UioFile> uio_;
    std::map<unsigned, kv::os::Mapping> bars_;
    /** How often the function was enabled: by its driver, and by programs through the file. */
    unsigned enableCount_;
    bool hasDriver_;
    bool boardAsserts_ = false;
    /** An interrupt that was raised by hand: first it waits for the driver, then for the program. */
    bool isRaised_ = false;
    bool isInService_ = false;
    std::unique_ptr<Board> board_;
};

}  // namespace kvsim
