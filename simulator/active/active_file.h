#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kvsim {

/**
 * A read that is answered once: at once, or when there is something to read. The reader waits meanwhile. One
 * that nobody answers, and whose reader is not interrupted, waits for ever.
 */
class PendingRead {
 public:
    virtual ~PendingRead() = default;
    /** False once it is answered, or its reader was interrupted by a signal. */
    [[nodiscard]] virtual bool isWaiting() const = 0;
    virtual void answer(std::string_view bytes) = 0;
    virtual void fail(int error) = 0;
};

struct ReadRequest {
    std::size_t sizeBytes;
    std::uint64_t offset;
    bool nonBlocking;
};

/** What one open() of an active file gives. Its destruction is the last close(). */
class OpenFile {
 public:
    virtual ~OpenFile() = default;
    /** Answers the read, or keeps it until there is something to answer. */
    virtual void read(const ReadRequest& request, std::shared_ptr<PendingRead> read) = 0;
    /** @return how many bytes were taken, or a negative error number */
    virtual int write(std::string_view bytes, std::uint64_t offset) = 0;
    /** Whether a read would be answered at once; for poll(2). */
    [[nodiscard]] virtual bool isReadable() const { return true; }

    /** Set by who serves the file: wakes those that poll it. */
    std::function<void()> onReadable;
};

/** A file whose reads and writes have side effects. They take effect before the system call returns. */
class ActiveFile {
 public:
    explicit ActiveFile(unsigned initialMode) : mode(initialMode) {}
    virtual ~ActiveFile() = default;
    /** @return null, with a reason in @p error, where it can't be opened */
    virtual std::unique_ptr<OpenFile> open(int& error) = 0;
    [[nodiscard]] virtual std::uint64_t sizeBytes() const { return 0; }

    unsigned mode;
};

/** An attribute as sysfs and procfs have them: a text that is made for each read, and taken as a whole. */
class AttributeFile : public ActiveFile {
 public:
    using Show = std::function<std::string()>;
    /** @return 0, or an error number */
    using Store = std::function<int(std::string_view text)>;

    /** A null function makes reads, or writes, fail with EIO as the kernel's do. */
    AttributeFile(unsigned initialMode, Show show, Store store)
        : ActiveFile(initialMode), show_(std::move(show)), store_(std::move(store)) {}

    std::unique_ptr<OpenFile> open(int& error) override;

 private:
    class Opened;

    Show show_;
    Store store_;
};

}  // namespace kvsim
