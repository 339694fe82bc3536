#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvsim/description.h"
#include "kvsim/export.h"

namespace kvsim {

/** This process may not be put on a machine of its own; what() tells which right is missing and how to get
 * it. */
class KVSIM_EXPORT MachineUnavailable : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/** Adds to one PCI function of a machine. Valid as long as the machine. */
class KVSIM_EXPORT PciFunctionBuilder {
 public:
    PciFunctionBuilder(MachineDescription& machine, std::size_t index) : machine_(&machine), index_(index) {}

    PciFunctionBuilder& bar(unsigned index, std::uint64_t address, std::uint64_t sizeBytes,
                            BarSpace space = BarSpace::Memory);
    /** Initial 32-bit words of the BAR that was added last, by their offset. */
    PciFunctionBuilder& registers(std::map<std::uint32_t, std::uint32_t> words);
    PciFunctionBuilder& subsystem(std::uint16_t vendor, std::uint16_t device);
    /** The driver that holds the function. */
    PciFunctionBuilder& driver(std::string name);
    PciFunctionBuilder& enabled(bool enabled);
    PciFunctionBuilder& expressCapability(std::uint8_t version, std::uint8_t linkWidth);
    /** The line on which the function raises INTx; without one it can't. */
    PciFunctionBuilder& irq(std::uint8_t number);
    /** What acts behind the registers, and what is connected to it. */
    PciFunctionBuilder& board(std::string name, std::vector<Plant> plants = {});
    PciFunctionBuilder& networkInterface(std::string name);
    PciFunctionBuilder& serialPort(std::string name);

 private:
    PciFunction& function() { return machine_->pciFunctions[index_]; }

    MachineDescription* machine_;
    std::size_t index_;
};

/** A function of the machine that this process runs on, seen through the files that the machine offers. */
class KVSIM_EXPORT PciFunctionFiles {
 public:
    explicit PciFunctionFiles(const PciFunction& description);

    /** Its folder, below /sys/bus/pci/devices. */
    [[nodiscard]] const std::string& path() const { return path_; }

    [[nodiscard]] std::uint8_t config8(unsigned offset) const;
    [[nodiscard]] std::uint16_t config16(unsigned offset) const;
    [[nodiscard]] std::uint32_t config32(unsigned offset) const;
    void setConfig8(unsigned offset, std::uint8_t value) const;
    void setConfig16(unsigned offset, std::uint16_t value) const;
    void setConfig32(unsigned offset, std::uint32_t value) const;

    /** A 32-bit word of a BAR, from where a process that maps the BAR finds it. */
    [[nodiscard]] std::uint32_t barWord(unsigned bar, std::uint32_t offset) const;
    void setBarWord(unsigned bar, std::uint32_t offset, std::uint32_t value) const;

    /** Raises the function's interrupt once, as a board does that releases its line when it is served. */
    void raiseInterrupt() const;

 private:
    std::string path_;
    std::vector<Bar> bars_;
};

/**
 * A target machine made of files. Describe it, then enter it: the process then finds the machine at its real
 * paths.
 *
 *     kvsim::Machine machine;
 *     machine.addBridge({.slot = 1}, 3);
 *     machine.addPciFunction({.bus = 3, .slot = 4, .vendor = 0x1234, .device = 0x5678})
 *         .bar(0, 0xA0000000, 0x1000).driver("uio_kelvaro");
 *     machine.enter();
 *
 * File helpers throw std::system_error naming the path. Members other than enter() may be used from any one
 * thread.
 */
class KVSIM_EXPORT Machine {
 public:
    Machine() = default;
    explicit Machine(MachineDescription description) : description_(std::move(description)) {}

    [[nodiscard]] const MachineDescription& description() const { return description_; }

    PciFunctionBuilder addPciFunction(PciFunction function);
    /**
     * Adds a PCI-to-PCI bridge that leads to a bus. Identity and class are those of a plain bridge unless
     * they are given.
     */
    PciFunctionBuilder addBridge(PciFunction bridge, std::uint8_t secondaryBus);
    Machine& addPciDriver(std::string name, std::vector<PciDriver::Identity> identities = {});
    Machine& addPlatformDevice(PlatformDevice device);
    Machine& addAxiDevice(AxiDevice device);
    /**
     * Programs that are started on the machine reach its chips through libgpiod: LD_LIBRARY_PATH leads them
     * to the machine's own. A process that enters by itself has loaded libgpiod before, so it must be linked
     * with the machine's own: the CMake target kv::simulator sees to that.
     */
    Machine& addGpioChip(GpioChip chip);
    /** Where the u-dma-buf manager takes buffers from; without it there is no manager. */
    Machine& dmaMemory(std::uint64_t address, std::uint64_t sizeBytes);
    Machine& cachedBuffer(std::uint64_t address, std::uint64_t sizeBytes);
    Machine& addFile(std::string path, std::string text);
    Machine& cpus(unsigned count);
    Machine& temperature(std::int32_t milliCelsius);
    Machine& serialNumber(std::string record);
    Machine& systemInformation(std::string fileName, std::string text);

    /**
     * Keeps what a machine keeps while it stays powered in a folder of the host: /tmp/kelvaro, /usr/kelvaro,
     * /home/brvn/logs and shared memory. One machine at a time uses it; the next one finds it there.
     */
    Machine& keepStateIn(std::string folder);

    /**
     * Puts this process, and what it starts from now on, on the machine. There is no way back. What it leaves
     * in the machine's folders ends with the last process there. Call it before the process starts threads.
     *
     * A machine that acts (drivers, interrupts, DMA buffers) gets a process of its own that serves it and
     * ends with the last process on the machine.
     *
     * Throws DescriptionError for a machine that can't be, MachineUnavailable where the rights are missing,
     * and std::runtime_error where another machine uses the state folder.
     */
    void enter();

    /** The files of a described function. Throws std::out_of_range where there is none. */
    [[nodiscard]] PciFunctionFiles pci(std::uint8_t bus, std::uint8_t slot, std::uint8_t function = 0) const;

    [[nodiscard]] static std::string read(const std::string& path);
    /** Replaces the text of a file; makes the file, and the folders above it, where there is none. */
    static void write(const std::string& path, const std::string& text);
    /** Removes a file, a link, or a folder with all that it holds, also one that the machine is made of. */
    static void remove(const std::string& path);
    /** Puts an empty folder in the place of whatever is at the path: a file that is there and can't be read.
     */
    static void replaceByFolder(const std::string& path);

 private:
    MachineDescription description_;
    std::string stateFolder_;
};

}  // namespace kvsim
