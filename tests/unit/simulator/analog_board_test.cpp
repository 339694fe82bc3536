#include "active/boards/analog_board.h"

#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_temporary_folder.h"

namespace {

using namespace std::chrono_literals;
using kv::test::TemporaryFolder;
using kvsim::AnalogBoard;
using kvsim::AnalogFrame;
using testing::ElementsAre;

// clang-format off
enum Register {
    kStatus = 0x08, kControl = 0x0C, kInput0 = 0x10, kInput3 = 0x1C, kOutput0 = 0x30, kPeriod = 0x50,
    kTicks = 0x54, kServed = 0x58, kEnable = 0x5C, kTimeLow = 0x60, kTimeHigh = 0x64, kStreamLow = 0x68,
    kStreamHigh = 0x6C, kFrames = 0x70, kMissed = 0x74
};
// clang-format on
constexpr std::uint32_t kDrive = 2;
constexpr std::uint32_t kAllInRange = 0xFF01;
constexpr std::uint32_t kStreamFault = 4;

class Slot : public kvsim::BoardSlot {
 public:
    void setInterrupt(bool asserted) override {
        line = asserted;
        if (onInterrupt && asserted) {
            onInterrupt();
        }
    }
    std::byte* bar(unsigned index) override { return index == 0 ? registers : nullptr; }
    kvsim::PhysicalMemory& physicalMemory() override { return memory; }
    kvsim::EventLoop& loop() override { return events; }

    alignas(8) std::byte registers[4096] = {};
    kvsim::PhysicalMemory memory;
    kvsim::EventLoop events;
    bool line = false;
    std::function<void()> onInterrupt;
};

/** A board with a plant of gain 0.8 and 50 ms between output 0 and input 0, and 5 V at input 3. */
class AnalogBoardTest : public testing::Test {
 protected:
    AnalogBoardTest() {
        set(kStatus, kAllInRange);
        set(kInput3, 0x4000);
        board_ = std::make_unique<AnalogBoard>(function_, slot_);
        now_ = AnalogBoard::Time::clock::now();
        pass(0ms);
    }

    void set(std::uint32_t offset, std::uint32_t value) {
        std::memcpy(slot_.registers + offset, &value, sizeof value);
    }
    [[nodiscard]] std::uint32_t word(std::uint32_t offset) const {
        std::uint32_t value = 0;
        std::memcpy(&value, slot_.registers + offset, sizeof value);
        return value;
    }
    [[nodiscard]] std::int32_t input(unsigned channel) const {
        return static_cast<std::int32_t>(word(kInput0 + 4 * channel));
    }

    /** The board's timer expires after this time. */
    void pass(std::chrono::nanoseconds time, std::uint64_t periods = 1) {
        now_ += time;
        board_->expire(now_, periods);
    }
    void start(std::chrono::nanoseconds period) {
        set(kPeriod, static_cast<std::uint32_t>(period.count()));
        pass(0ms);
    }

    /** Gives the board a buffer that is a file of one page. */
    void addBuffer(std::uint64_t address) {
        bufferFile_ = folder_.write("buffer", std::string(4096, '\xEE'));
        slot_.memory.add(address, 4096, kv::os::openFile(bufferFile_.c_str(), O_RDWR));
    }
    void stream(std::uint64_t address, std::uint32_t frames) {
        set(kStreamLow, static_cast<std::uint32_t>(address));
        set(kStreamHigh, static_cast<std::uint32_t>(address >> 32));
        set(kFrames, frames);
    }
    [[nodiscard]] std::vector<AnalogFrame> frames() const {
        std::vector<AnalogFrame> frames(4096 / sizeof(AnalogFrame));
        std::ifstream(bufferFile_).read(reinterpret_cast<char*>(frames.data()), 4096);
        return frames;
    }

    kvsim::PciFunction function_{
        .board = "analog-io",
        .plants = {{.output = 0, .input = 0, .gain = 0.8, .timeConstantSeconds = 0.05}}};
    TemporaryFolder folder_;
    std::filesystem::path bufferFile_;
    Slot slot_;
    std::unique_ptr<AnalogBoard> board_;
    AnalogBoard::Time now_;
};

TEST_F(AnalogBoardTest, PlantFollowsTheOutputWhileItDrives) {
    const double settled = 0.8 * 20000;
    set(kOutput0, 20000);
    set(kControl, kDrive);
    start(1ms);
    EXPECT_EQ(input(0), 0);
    for (int tick = 0; tick < 50; ++tick) {
        pass(1ms);
    }
    EXPECT_NEAR(input(0), settled * (1 - std::exp(-1)), 1);
    EXPECT_EQ(input(3), 0x4000);
    EXPECT_EQ(word(kStatus), kAllInRange);

    set(kControl, 0);
    pass(50ms, 50);
    EXPECT_NEAR(input(0), settled * (1 - std::exp(-1)) * std::exp(-1), 1);
}

TEST_F(AnalogBoardTest, InputsChangeOnlyWhenTheyAreConverted) {
    set(kOutput0, 20000);
    set(kControl, kDrive);
    pass(50ms);
    EXPECT_EQ(input(0), 0);
    set(kOutput0, 0);
    set(kControl, kDrive | 1);
    pass(25ms);  // the plant was driven before, and falls since
    EXPECT_NEAR(input(0), 16000 * (1 - std::exp(-1)) * std::exp(-0.5), 1);
    EXPECT_EQ(word(kControl), kDrive);
}

TEST_F(AnalogBoardTest, SaturatesWhatIsOutOfRange) {
    function_.plants = {{.output = 0, .input = 0, .gain = 2}, {.output = 1, .input = 5, .gain = 2}};
    board_ = std::make_unique<AnalogBoard>(function_, slot_);
    set(kOutput0, 0x7FFFFFFF);
    set(kOutput0 + 4, 0x80000000);
    set(kControl, kDrive | 1);
    pass(1h);
    EXPECT_EQ(input(0), 32767);
    EXPECT_EQ(input(5), -32768);
    EXPECT_EQ(word(kStatus), 0xDE03U);  // overrange, all but 0 and 5 in range

    set(kOutput0, 16383);
    set(kOutput0 + 4, static_cast<std::uint32_t>(-16384));
    set(kControl, kDrive | 1);
    pass(1h);
    EXPECT_EQ(input(0), 32766);
    EXPECT_EQ(input(5), -32768);
    EXPECT_EQ(word(kStatus), kAllInRange);
}

TEST_F(AnalogBoardTest, StreamsAFrameForEachTickAround) {
    addBuffer(0x100000000);
    stream(0x100000040, 4);
    start(1ms);
    const auto nanoseconds = [this](std::chrono::nanoseconds ago) {
        return static_cast<std::uint64_t>((now_ - ago).time_since_epoch().count());
    };
    for (int tick = 0; tick < 3; ++tick) {
        pass(1ms);
    }
    pass(3ms, 3);  // late: the frames of ticks 4, 5 and 6 at once
    EXPECT_EQ(word(kTicks), 6U);
    EXPECT_EQ(std::uint64_t{word(kTimeHigh)} << 32 | word(kTimeLow), nanoseconds(0ms));

    const auto all = frames();
    const std::vector<AnalogFrame> ring(all.begin() + 1, all.begin() + 5);
    const auto of = [&ring](auto member) {
        std::vector<std::uint64_t> values;
        for (const AnalogFrame& frame : ring) {
            values.push_back(frame.*member);
        }
        return values;
    };
    EXPECT_THAT(of(&AnalogFrame::tick), ElementsAre(4, 5, 6, 3));
    EXPECT_THAT(of(&AnalogFrame::timeNs),
                ElementsAre(nanoseconds(2ms), nanoseconds(1ms), nanoseconds(0ms), nanoseconds(3ms)));
    EXPECT_EQ(ring[2].inputs[3], 0x4000);
    EXPECT_EQ(all[0].tick, 0xEEEEEEEE);
    EXPECT_EQ(all[5].tick, 0xEEEEEEEE);
}

TEST_F(AnalogBoardTest, TellsAStreamThatHasNoBuffer) {
    addBuffer(0x80000000);
    start(1ms);
    const struct {
        std::uint64_t address;
        std::uint32_t frames;
    } nowhere[] = {{0x90000000, 1},          {0x80000040, 64},       {0x80000004, 1},
                   {0x80000000, 0xFFFFFFFF}, {UINT64_MAX - 7, 0x40}, {0, 0x04000001}};
    for (const auto& each : nowhere) {
        stream(each.address, each.frames);
        pass(1ms);
        EXPECT_EQ(word(kStatus), kAllInRange | kStreamFault) << each.address << ", " << each.frames;
    }
    EXPECT_EQ(frames()[0].tick, 0xEEEEEEEE);
    EXPECT_EQ(word(kTicks), std::size(nowhere));

    stream(0x80000000, 64);
    pass(1ms);
    EXPECT_EQ(word(kStatus), kAllInRange);
    slot_.memory.remove(0x80000000);
    pass(1ms);
    EXPECT_EQ(word(kStatus), kAllInRange | kStreamFault);
}

TEST_F(AnalogBoardTest, HoldsItsLineUntilTheLastTickIsServed) {
    start(1ms);
    pass(1ms);
    EXPECT_FALSE(slot_.line) << "not enabled";
    set(kEnable, 1);
    pass(1ms);
    EXPECT_TRUE(slot_.line);
    EXPECT_EQ(word(kMissed), 0U);

    pass(1ms);
    EXPECT_EQ(word(kMissed), 1U);
    set(kServed, 2);
    board_->interruptServed();
    EXPECT_TRUE(slot_.line) << "tick 3 came meanwhile";
    set(kServed, 3);
    board_->interruptServed();
    EXPECT_FALSE(slot_.line);
    pass(4ms, 4);
    EXPECT_TRUE(slot_.line);
    EXPECT_EQ(word(kMissed), 4U) << "three more, while the board itself was late";

    start(0ms);
    EXPECT_FALSE(slot_.line) << "stopped";
    EXPECT_EQ(word(kTicks), 7U);
    start(2ms);
    EXPECT_FALSE(slot_.line);
    EXPECT_EQ(word(kTicks) + word(kMissed) + word(kServed), 0U) << "started anew";
    pass(2ms);
    EXPECT_TRUE(slot_.line);
    start(3ms);  // another period: the ticks go on
    EXPECT_EQ(word(kTicks), 2U);
}

TEST_F(AnalogBoardTest, LetsTheDriverMaskTheInterruptInTheBoard) {
    slot_.onInterrupt = [this] { board_->maskInterrupt(1, 1); };
    set(kEnable, 0x11);
    start(1ms);
    pass(1ms);
    EXPECT_FALSE(slot_.line);
    EXPECT_EQ(word(kEnable), 0x10U);
    pass(1ms);
    EXPECT_EQ(word(kMissed), 1U) << "masked, and still not served";

    slot_.onInterrupt = nullptr;
    set(kServed, 2);
    set(kEnable, 1);
    pass(1ms);
    EXPECT_TRUE(slot_.line);
    EXPECT_EQ(word(kMissed), 1U);
}

TEST_F(AnalogBoardTest, EnduresWhateverProgramsWrite) {
    addBuffer(0x80000000);
    stream(0x80000000, 64);
    start(1ns);
    pass(1ms, 2);
    EXPECT_EQ(frames()[2].timeNs - frames()[1].timeNs, 20000U) << "the shortest period";
    pass(1ms, UINT64_MAX);

    std::memset(slot_.registers, 0xFF, sizeof slot_.registers);
    for (int tick = 0; tick < 3; ++tick) {
        pass(-1ms);
    }
    EXPECT_EQ(input(3), 0x4000);
    EXPECT_EQ(word(kStatus), kAllInRange | kStreamFault);
}

TEST_F(AnalogBoardTest, KeepsTimeByItself) {
    const auto begin = AnalogBoard::Time::clock::now();
    slot_.onInterrupt = [this] {
        if (word(kTicks) >= 5) {
            slot_.events.stop();
        }
        set(kServed, word(kTicks));
        board_->interruptServed();
    };
    set(kEnable, 1);
    set(kPeriod, 2000000);
    slot_.events.run();
    EXPECT_GE(AnalogBoard::Time::clock::now() - begin, 10ms);
    EXPECT_GE(word(kTicks), 5U);
}

}  // namespace
