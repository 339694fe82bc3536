// Interrupts that boards raise, a real kernel counts, and the library waits for.

#include <chrono>
#include <future>
#include <memory>
#include <numeric>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <thread>

#include <kv/soc.h>

#include "pci_kernel.h"

using kv::test::Board;
using kv::test::KernelFunction;
using kv::test::readText;
using kv::test::writeText;
using kv::utils::formatString;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

using Context = std::unique_ptr<kv_InterruptContext, decltype(&kv_uio_interruptDetach)>;

constexpr unsigned kCommand = 0x04;
constexpr unsigned kStatus = 0x06;
constexpr uint16_t kInterruptDisable = 0x0400;
constexpr uint16_t kInterruptPending = 0x0008;
constexpr const char* kDriver = "/sys/bus/pci/drivers/uio_kelvaro";

/** The registers of an interrupting board. */
class Registers {
 public:
    explicit Registers(const Context& context)
        : words_(static_cast<volatile uint32_t*>(kv_mapMemory(&context->pciInfo, 0))) {}

    [[nodiscard]] uint32_t pending() const { return words_[0x24 / 4]; }
    void raise(uint32_t bits) const { words_[0x60 / 4] = bits; }
    void acknowledge(uint32_t bits) const { words_[0x64 / 4] = bits; }
    /** Computes a factorial, with an interrupt at the end. */
    void startWork(uint32_t number) const {
        words_[0x20 / 4] = 0x80;
        words_[0x08 / 4] = number;
    }
    [[nodiscard]] uint32_t result() const { return words_[0x08 / 4]; }

 private:
    volatile uint32_t* words_;
};

class Interrupt : public testing::Test {
 protected:
    void SetUp() override {
        ASSERT_EQ(boards_.size(), 3U);
        for (const KernelFunction& board : boards_) {
            ASSERT_EQ(board.driver(), "") << board;
        }
        before_ = openFiles();
    }
    /** Leaves the boards to nobody, and the driver without their identity. */
    void TearDown() override {
        EXPECT_EQ(openFiles(), before_);
        (void)writeText(std::string(kDriver) + "/remove_id", "1234 11e8");
        for (const KernelFunction& board : boards_) {
            kv_PCIDevice record = recordOf(board);
            EXPECT_EQ(kv_pci_unbindDriver(&record), 0);
            while (board.text("enable") != "0") {
                ASSERT_EQ(writeText(board.path("enable"), "0"), 0) << board;
            }
        }
    }

    static long openFiles() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    }

    static Context attached(const KernelFunction& board) {
        kv_PCIDevice record = recordOf(board);
        kv_InterruptContext* context = nullptr;
        EXPECT_EQ(kv_uio_createInterruptContext(&context, &record), 0);
        EXPECT_EQ(kv_uio_interruptAttach(context), 0) << pKvErrorStr;
        return {context, kv_uio_interruptDetach};
    }
    static void enable(const Context& context) { EXPECT_EQ(kv_uio_enableInterrupt(context.get()), 0); }
    static void expectInterrupt(const Context& context, int count) {
        EXPECT_EQ(kv_uio_interruptWait(context.get()), 0) << pKvErrorStr;
        EXPECT_EQ(context->intCount, count);
    }
    static bool isWaiting(const Context& context, int timeoutMs = 0) {
        pollfd uio{.fd = context->uiofd, .events = POLLIN, .revents = 0};
        return ::poll(&uio, 1, timeoutMs) == 1;
    }
    static void runOn(std::size_t cpu) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(cpu, &cpus);
        ASSERT_EQ(::sched_setaffinity(0, sizeof cpus, &cpus), 0);
    }
    static bool isMasked(const KernelFunction& board) {
        return (board.config16(kCommand) & kInterruptDisable) != 0;
    }
    static bool isPending(const KernelFunction& board) {
        return (board.config16(kStatus) & kInterruptPending) != 0;
    }
    /** How often each processor has served an interrupt line. */
    static std::vector<long> servedBy(uint32_t irq) {
        std::istringstream counts(readText(formatString("/sys/kernel/irq/%u/per_cpu_count", irq)));
        std::vector<long> list;
        for (std::string count; std::getline(counts, count, ',');) {
            list.push_back(std::stol(count));
        }
        return list;
    }
    static long served(uint32_t irq) {
        const auto list = servedBy(irq);
        return std::accumulate(list.begin(), list.end(), 0L);
    }

    const std::vector<KernelFunction> boards_ = KernelFunction::all(Board::kInterrupting);
    kv::test::LogCapture log_;
    long before_ = 0;
};

TEST_F(Interrupt, IsMaskedByTheAttachmentAndByComing) {
    const KernelFunction& board = boards_[0];
    board.setConfig16(kCommand, static_cast<uint16_t>(board.config16(kCommand) & ~kInterruptDisable));
    ASSERT_FALSE(isMasked(board));
    const Context context = attached(board);
    EXPECT_EQ(board.driver(), "uio_kelvaro");
    EXPECT_THAT(board.devices("uio"), ElementsAre(formatString("uio%d", context->uioIndex)));
    EXPECT_EQ(std::filesystem::status(formatString("/dev/uio%d", context->uioIndex)).permissions(),
              std::filesystem::perms(0666));
    EXPECT_THAT(log_.take(), testing::Not(testing::Contains(testing::Field(
                                 &kv::test::Record::text, testing::HasSubstr("bindDeviceToUio")))));

    const Registers registers(context);
    ASSERT_TRUE(isMasked(board)) << "by the library";
    registers.raise(1);
    EXPECT_TRUE(isPending(board));
    EXPECT_FALSE(isWaiting(context, 50)) << "masked";
    const long before = served(board.number("irq"));
    enable(context);
    expectInterrupt(context, 1);
    EXPECT_TRUE(isMasked(board)) << "by the driver";
    EXPECT_EQ(served(board.number("irq")), before + 1);

    registers.acknowledge(1);
    EXPECT_FALSE(isPending(board));
    enable(context);
    EXPECT_FALSE(isMasked(board));
    EXPECT_FALSE(isWaiting(context, 50)) << "served";
    EXPECT_EQ(board.config16(kCommand) & 0xFF, 0x06) << "the lower byte is left alone";
}

TEST_F(Interrupt, IsNeitherLostNorDoubled) {
    constexpr uint32_t kRounds = 10'000;
    runOn(0);  // where the kernel serves it: an emulated processor takes long to wake another
    const Context context = attached(boards_[0]);
    const Registers registers(context);
    const uint32_t irq = boards_[0].number("irq");
    const long before = served(irq);
    uint32_t faults = 0;
    for (uint32_t round = 1; round <= kRounds; ++round) {
        const bool comesWhileMasked = round % 2 == 0;
        if (comesWhileMasked) {
            registers.raise(round);
        }
        faults += kv_uio_enableInterrupt(context.get()) != 0;
        if (!comesWhileMasked) {
            registers.raise(round);
        }
        faults += kv_uio_interruptWait(context.get()) != 0;
        faults += context->intCount != static_cast<int>(round) || registers.pending() != round;
        registers.acknowledge(round);
    }
    EXPECT_EQ(faults, 0U);
    enable(context);
    EXPECT_FALSE(isWaiting(context, 50)) << "one more";
    EXPECT_EQ(served(irq), before + kRounds) << "as the kernel counts them";
    EXPECT_EQ(readText(formatString("/sys/class/uio/uio%d/event", context->uioIndex)),
              std::to_string(kRounds));
}

TEST_F(Interrupt, ComesWhenTheBoardHasDoneItsWork) {
    constexpr uint32_t kFinished = 1;
    const Context context = attached(boards_[0]);
    const Registers registers(context);
    for (int round = 1; round <= 500; ++round) {
        registers.startWork(5);  // ends before, while or after the interrupt is enabled
        enable(context);
        expectInterrupt(context, round);
        ASSERT_EQ(registers.result(), 120U);
        registers.acknowledge(kFinished);
    }
}

TEST_F(Interrupt, WakesWhoWaitsForItsBoardAlsoOnASharedLine) {
    const Context contexts[] = {attached(boards_[0]), attached(boards_[1]), attached(boards_[2])};
    ASSERT_EQ(boards_[0].number("irq"), boards_[1].number("irq")) << "the first two share a line";
    ASSERT_NE(boards_[0].number("irq"), boards_[2].number("irq"));
    const Registers registers[] = {Registers(contexts[0]), Registers(contexts[1]), Registers(contexts[2])};
    for (int round = 1; round <= 20; ++round) {
        for (const Context& context : contexts) {
            enable(context);
        }
        auto waiting = std::async(std::launch::async, kv_uio_interruptWait, contexts[0].get());
        for (const int other : {1, 2}) {
            registers[other].raise(1);
            expectInterrupt(contexts[other], round);
            registers[other].acknowledge(1);
        }
        EXPECT_EQ(waiting.wait_for(milliseconds(2)), std::future_status::timeout);
        EXPECT_FALSE(isMasked(boards_[0]));
        registers[0].raise(1);
        EXPECT_EQ(waiting.get(), 0);
        EXPECT_EQ(contexts[0]->intCount, round);
        registers[0].acknowledge(1);
    }
}

TEST_F(Interrupt, FailsForWhoWaitsWhenItsBoardIsTakenAway) {
    const Context context = attached(boards_[0]);
    auto waiting = std::async(std::launch::async, kv_uio_interruptWait, context.get());
    EXPECT_EQ(waiting.wait_for(milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(kv_pci_unbindDriver(&context->pciInfo), 0);
    EXPECT_EQ(waiting.get(), -EIO);
    EXPECT_STREQ(pKvErrorStr, "Interrupt Wait: Failed to read UIO device: Input/output error\n");
    EXPECT_EQ(kv_uio_interruptWait(context.get()), -EIO);
    EXPECT_EQ(kv_uio_interruptEnableFix(context.get()), -EINVAL);

    context->kv_int_fix = {};
    EXPECT_EQ(kv_uio_interruptAttach(context.get()), 0) << "it comes back";
    const Registers registers(context);
    enable(context);
    registers.raise(1);
    expectInterrupt(context, 1);
    registers.acknowledge(1);
}

TEST_F(Interrupt, IsServedByTheProcessorThatItIsGiven) {
    const KernelFunction& board = boards_[0];
    const Context context = attached(board);
    const Registers registers(context);
    for (const KernelFunction& other : {boards_[1], boards_[2]}) {  // the name means the first that has it
        kv_PCIDevice record = recordOf(other);
        ASSERT_EQ(kv_pci_unbindDriver(&record), 0);
    }
    const uint32_t irq = board.number("irq");
    const std::string list = formatString("/proc/irq/%u/smp_affinity_list", irq);
    int count = 0;
    /** The processors that serve some interrupts. */
    const auto serving = [&] {
        auto counts = servedBy(irq);
        for (int round = 0; round < 10; ++round) {
            enable(context);
            registers.raise(1);
            expectInterrupt(context, ++count);
            registers.acknowledge(1);
        }
        const auto after = servedBy(irq);
        for (std::size_t cpu = 0; cpu < counts.size(); ++cpu) {
            counts[cpu] = after[cpu] - counts[cpu];
        }
        return counts;
    };
    for (const int cpu : {2, 3, 1}) {
        EXPECT_EQ(kv_setAxiIrqAffinity("uio_kelvaro", cpu), 0) << pKvErrorStr;
        EXPECT_EQ(readText(list), std::to_string(cpu));
        std::vector<long> all(4, 0);
        all[static_cast<std::size_t>(cpu)] = 10;
        EXPECT_EQ(serving(), all) << "processor " << cpu;
    }
    for (const int cpu : {3, -1}) {
        EXPECT_EQ(kv_setAxiIrqAffinity("uio_kelvaro", cpu), 0);
        EXPECT_EQ(readText(list), "1") << "what processor 1 serves stays there";
    }
    EXPECT_THAT(serving(), ElementsAre(0, 10, 0, 0));

    ASSERT_EQ(writeText(list, "0-3"), 0);
    errno = 0;
    EXPECT_EQ(kv_setAxiIrqAffinity("uio_kelvaro", 9), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(pKvErrorStr,
              formatString("Failed to set IRQ %u affinity to CPU 9: Numerical result out of range", irq));
    EXPECT_EQ(readText(list), "0-3");
    EXPECT_EQ(kv_setAxiIrqAffinity("pciehp0", 2), -1);
    EXPECT_STREQ(pKvErrorStr, "Failed to get IRQ number for AXI device pciehp0");
}

TEST_F(Interrupt, IsFoundByNameWhileTheFirstOfThatNameIsThere) {
    const Context contexts[] = {attached(boards_[0]), attached(boards_[1]), attached(boards_[2])};
    const auto release = [](const Context& context) { EXPECT_EQ(kv_pci_unbindDriver(&context->pciInfo), 0); };
    kv_AxiDevice device{};
    EXPECT_EQ(kv_findAxiDevice(&device, "uio_kelvaro"), 0);
    EXPECT_EQ(device.uioIndex, contexts[0]->uioIndex);
    release(contexts[0]);
    EXPECT_EQ(kv_findAxiDevice(&device, "uio_kelvaro"), -1)
        << "device 0 is gone, and the others are not seen";
    EXPECT_STREQ(pKvErrorStr, "Could not find uio_kelvaro");

    // Of two handlers of one name on a line, the kernel shows the first alone.
    release(contexts[2]);
    EXPECT_EQ(boards_[1].driver(), "uio_kelvaro");
    EXPECT_EQ(kv_setAxiIrqAffinity("uio_kelvaro", 2), -1);
    EXPECT_STREQ(pKvErrorStr, "Failed to get IRQ number for AXI device uio_kelvaro");
    release(contexts[1]);
}

TEST_F(Interrupt, IsEnabledInTheBoardOnceTheFixIsOn) {
    constexpr uint32_t kInterruptWhenDone = 0x80;
    const KernelFunction& board = boards_[0];
    const Context context = attached(board);
    uint32_t* const control = static_cast<uint32_t*>(kv_mapMemory(&context->pciInfo, 0)) + 0x20 / 4;
    volatile uint32_t* const now = control;
    *now = 0;
    context->kv_int_fix = {.requested_by_user = false,
                           .target_register = control,
                           .int_mask = kInterruptWhenDone,
                           .fix_type = 3};
    EXPECT_EQ(kv_uio_interruptEnableFix(context.get()), 0);
    EXPECT_EQ(board.text("fix"), "2 0x3 0x80") << "as the driver has taken it";
    const uint16_t command = board.config16(kCommand);  // masks the interrupt: this driver only keeps the fix
    enable(context);
    EXPECT_EQ(*now & kInterruptWhenDone, kInterruptWhenDone);
    EXPECT_EQ(board.config16(kCommand), command) << "left alone";
    *now = 0;
}

}  // namespace
