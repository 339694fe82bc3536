// The interrupts of a PCI function, as a program meets them that drives it from user space.

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <poll.h>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "os/unique_fd.h"
#include "support/machine_test.h"

namespace {

using kvsim::Machine;

constexpr unsigned kCommand = 0x04;
constexpr unsigned kStatus = 0x06;
constexpr unsigned kInterruptStatus = 1U << 3;
constexpr std::uint16_t kMemory = 0x0002;
constexpr std::uint16_t kInterruptDisable = 1U << 10;

/** One open of a UIO device. */
class Uio {
 public:
    explicit Uio(int flags = 0) : file_(kv::os::openFile("/dev/uio0", O_RDWR | flags)) {}

    [[nodiscard]] bool isOpen() const { return static_cast<bool>(file_); }

    /** @return the count, or a negative error number */
    [[nodiscard]] int read() const {
        int count = 0;
        return ::read(file_.get(), &count, sizeof count) == sizeof count ? count : -errno;
    }

    /** @return what was taken, or a negative error number */
    template <typename Value>
    [[nodiscard]] int write(Value value) const {
        const ssize_t taken = ::write(file_.get(), &value, sizeof value);
        return taken < 0 ? -errno : static_cast<int>(taken);
    }

    [[nodiscard]] bool isReadable(int timeoutMs = 0) const {
        pollfd file{.fd = file_.get(), .events = POLLIN, .revents = 0};
        return ::poll(&file, 1, timeoutMs) == 1;
    }

    [[nodiscard]] int get() const { return file_.get(); }

 private:
    kv::os::UniqueFd file_;
};

class UioInterrupt : public testing::Test {
 protected:
    void SetUp() override { ::alarm(20); }

    kvsim::PciFunctionBuilder addBoard() {
        return machine_.addPciFunction({.slot = 1, .vendor = 0x1b5a, .device = 0x0100, .irq = 40})
            .driver("uio_kelvaro");
    }

    [[nodiscard]] kvsim::PciFunctionFiles board() const { return machine_.pci(0, 1); }
    void enable() const { board().setConfig8(kCommand + 1, 0); }
    void mask() const { board().setConfig8(kCommand + 1, kInterruptDisable >> 8); }
    [[nodiscard]] bool isMasked() const { return (board().config16(kCommand) & kInterruptDisable) != 0; }
    [[nodiscard]] bool isLineAsserted() const { return (board().config16(kStatus) & kInterruptStatus) != 0; }
    [[nodiscard]] std::string attribute(const std::string& name) const {
        return Machine::read(board().path() + "/" + name);
    }

    Machine machine_;
};

TEST_F(UioInterrupt, IsCountedOnceAndMaskedUntilItIsEnabledAgain) {
    addBoard();
    ENTER_MACHINE(machine_);
    const Uio uio;
    EXPECT_FALSE(uio.isReadable());
    board().raiseInterrupt();
    EXPECT_TRUE(uio.isReadable());
    EXPECT_TRUE(isMasked());
    EXPECT_TRUE(isLineAsserted());
    EXPECT_EQ(uio.read(), 1);
    EXPECT_FALSE(uio.isReadable());

    const Uio later;
    EXPECT_FALSE(later.isReadable()) << "what came before the open has been seen";
    board().raiseInterrupt();
    board().raiseInterrupt();
    EXPECT_FALSE(uio.isReadable());
    enable();
    EXPECT_TRUE(isMasked());
    EXPECT_EQ(uio.read(), 2);
    EXPECT_EQ(later.read(), 2);
    enable();
    EXPECT_FALSE(isMasked());
    EXPECT_FALSE(isLineAsserted());
    EXPECT_FALSE(uio.isReadable());
    EXPECT_EQ(attribute("uio/uio0/event"), "2\n");
}

TEST_F(UioInterrupt, WaitsForADriverAndForBeingEnabled) {
    machine_.addPciFunction({.slot = 1, .vendor = 0x1b5a, .device = 0x0100, .irq = 40});
    machine_.addPciDriver("uio_kelvaro");
    ENTER_MACHINE(machine_);
    board().raiseInterrupt();
    EXPECT_TRUE(isLineAsserted());
    EXPECT_FALSE(isMasked());
    Machine::write("/sys/bus/pci/drivers/uio_kelvaro/new_id", "1b5a 0100");
    EXPECT_EQ(board().config16(kCommand), kMemory | kInterruptDisable);
    EXPECT_EQ(attribute("uio/uio0/event"), "1\n");

    enable();
    mask();
    const Uio uio;
    board().raiseInterrupt();
    EXPECT_FALSE(uio.isReadable());
    enable();
    EXPECT_EQ(uio.read(), 2);
}

TEST_F(UioInterrupt, WakesReadersAndThoseThatPoll) {
    addBoard();
    ENTER_MACHINE(machine_);
    const Uio uio;
    auto reader = std::async(std::launch::async, [] { return Uio().read(); });
    auto poller = std::async(std::launch::async, [&uio] { return uio.isReadable(10000); });
    // The reader's open may come after an interrupt, of which it then knows nothing.
    while (reader.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
        board().raiseInterrupt();
        enable();
    }
    EXPECT_GT(reader.get(), 0);
    EXPECT_TRUE(poller.get());
}

TEST_F(UioInterrupt, TakesAndGivesWordsOnly) {
    addBoard();
    ENTER_MACHINE(machine_);
    const Uio uio(O_NONBLOCK);
    std::uint64_t wide = 0;
    EXPECT_EQ(uio.read(), -EAGAIN);
    EXPECT_EQ(::read(uio.get(), &wide, sizeof wide), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(uio.write(std::uint16_t{1}), -EINVAL);
    EXPECT_EQ(attribute("fix"), "0 0x0 0x0\n");
}

TEST_F(UioInterrupt, IsNotMaskedInTheCommandRegisterOnceAFixIsTold) {
    addBoard();
    ENTER_MACHINE(machine_);
    const Uio uio;
    EXPECT_EQ(uio.write(std::uint32_t{3}), 4);
    EXPECT_EQ(uio.write(std::uint32_t{0x80}), 4);
    EXPECT_EQ(attribute("fix"), "2 0x3 0x80\n");
    board().raiseInterrupt();
    EXPECT_EQ(uio.read(), 1);
    EXPECT_FALSE(isMasked());
    EXPECT_FALSE(isLineAsserted());
    board().raiseInterrupt();
    EXPECT_EQ(uio.read(), 2);
}

TEST_F(UioInterrupt, FailsForWhoWaitsWhenTheDeviceGoes) {
    addBoard();
    ENTER_MACHINE(machine_);
    const Uio uio;
    board().raiseInterrupt();
    EXPECT_EQ(uio.read(), 1);
    auto reader = std::async(std::launch::async, [&uio] { return uio.read(); });
    EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    Machine::write("/sys/bus/pci/drivers/uio_kelvaro/unbind", "0000:00:01.0");
    EXPECT_EQ(reader.get(), -EIO);
    EXPECT_TRUE(uio.isReadable());
    EXPECT_EQ(uio.read(), -EIO);
    EXPECT_EQ(uio.write(1), -EINVAL);
    EXPECT_FALSE(Uio().isOpen());

    Machine::write("/sys/bus/pci/drivers_probe", "0000:00:01.0");
    EXPECT_FALSE(isMasked());
    const Uio again;
    board().raiseInterrupt();
    EXPECT_EQ(again.read(), 1);
    EXPECT_EQ(uio.read(), -EIO);
}

TEST_F(UioInterrupt, ComesAgainWhileTheBoardHoldsItsLine) {
    constexpr std::uint32_t kPeriod = 0x50;
    constexpr std::uint32_t kTicks = 0x54;
    constexpr std::uint32_t kServed = 0x58;
    constexpr std::uint32_t kTimerInterrupt = 0x5C;
    constexpr std::uint32_t kPeriodNs = 400'000'000;
    addBoard().board("analog-io").bar(0, 0xA0000000, 0x1000);
    ENTER_MACHINE(machine_);
    const Uio uio;
    board().setBarWord(0, kTimerInterrupt, 1);
    board().setBarWord(0, kPeriod, kPeriodNs);
    EXPECT_EQ(uio.read(), 1);
    enable();
    EXPECT_TRUE(uio.isReadable()) << "the tick has not been served";
    EXPECT_EQ(uio.read(), 2);
    board().setBarWord(0, kServed, board().barWord(0, kTicks));
    enable();
    EXPECT_FALSE(isMasked());
    EXPECT_FALSE(uio.isReadable());
    EXPECT_EQ(uio.read(), 3) << "the next tick";
}

}  // namespace
