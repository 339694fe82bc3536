#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "active/active_file.h"
#include "active/file_service.h"
#include "layout/file_tree.h"

namespace kvsim {

/** The driver that makes UIO devices of PCI functions. */
inline constexpr const char* kUioDriver = "uio_kelvaro";

/** The file /dev/uioN of a device that interrupts: it counts, and those who read it wait for the next one. */
class UioFile : public ActiveFile, public std::enable_shared_from_this<UioFile> {
 public:
    /** How a program wants interrupts to be masked on the board, in place of the command register. */
    struct Fix {
        std::uint32_t type;
        std::uint32_t mask;
    };

    UioFile();
    ~UioFile() override;

    std::unique_ptr<OpenFile> open(int& error) override;

    [[nodiscard]] std::uint32_t count() const { return count_; }
    void interrupt();
    /** The device is gone: who waits, or reads later, gets EIO. */
    void disappear();

    /** Whether a program has told a fix, which takes two writes. */
    [[nodiscard]] bool hasFix() const { return fixWrites_ >= 2; }
    [[nodiscard]] Fix fix() const { return {.type = fix_[0], .mask = fix_[1]}; }
    [[nodiscard]] unsigned fixWrites() const { return fixWrites_; }
    /** Set by the driver: called when a fix has been told. */
    std::function<void()> onFix;

 private:
    class Opened;

    void wakeReaders();

    std::uint32_t count_ = 0;
    std::array<std::uint32_t, 2> fix_{};
    unsigned fixWrites_ = 0;
    bool isGone_ = false;
    std::set<Opened*> opened_;
};

/** The UIO device that the driver makes of a PCI function that it holds. */
class UioDevice {
 public:
    UioDevice(FileService& files, unsigned number, std::string functionPath);
    ~UioDevice();
    UioDevice(const UioDevice&) = delete;
    UioDevice& operator=(const UioDevice&) = delete;

    [[nodiscard]] unsigned number() const { return number_; }
    [[nodiscard]] const std::shared_ptr<UioFile>& file() const { return file_; }

 private:
    [[nodiscard]] FileTree tree() const;
    [[nodiscard]] std::string eventPath() const;
    [[nodiscard]] std::string fixPath() const;

    FileService& files_;
    unsigned number_;
    std::string functionPath_;
    std::shared_ptr<UioFile> file_;
};

}  // namespace kvsim
