#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "active/active_file.h"

namespace kvsim {

/** The configuration space of a function that can interrupt. It keeps what is written to it. */
class ConfigSpace : public ActiveFile, public std::enable_shared_from_this<ConfigSpace> {
 public:
    explicit ConfigSpace(std::string bytes) : ActiveFile(0644), bytes_(std::move(bytes)) {}

    std::unique_ptr<OpenFile> open(int& error) override;
    [[nodiscard]] std::uint64_t sizeBytes() const override { return bytes_.size(); }

    [[nodiscard]] std::uint16_t command() const;
    void setCommand(std::uint16_t command);
    [[nodiscard]] bool isInterruptDisabled() const;
    /** What the status register shows of the INTx line. */
    void showInterrupt(bool asserted);

    /** Called before, and after, Interrupt Disable gets clear. */
    std::function<void()> beforeUnmask;
    std::function<void()> afterUnmask;

 private:
    class Opened;

    int write(std::string_view bytes, std::uint64_t offset);

    std::string bytes_;
};

}  // namespace kvsim
