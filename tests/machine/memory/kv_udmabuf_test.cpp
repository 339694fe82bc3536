#include <atomic>
#include <cstring>
#include <future>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "cached_buffer_machine.h"

using kv::test::debug;
using kv::test::error;
using kv::test::info;
using kv::test::kCachedAddress;
using kv::test::kCachedBytes;
using kv::test::kCachedFolder;
using kv::test::kCachedNode;
using kv::test::kManager;
using kv::test::openFiles;
using kv::test::Record;
using kv::test::warning;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Udmabuf : public testing::Test {
 protected:
    void expectNoBuffer(std::size_t length, const std::vector<Record>& records) {
        EXPECT_EQ(kv_udmabuf_allocBuffer(length), nullptr);
        EXPECT_EQ(log_.take(), records);
    }

    kv::test::LogCapture log_;
};

TEST_F(Udmabuf, TellsWhyThereIsNoUncachedBuffer) {
    Machine machine;
    ENTER_MACHINE(machine);
    Machine::write(kManager, "");  // takes the command, and nothing comes of it
    const auto openBefore = openFiles();
    expectNoBuffer(0, {});
    expectNoBuffer(std::numeric_limits<std::size_t>::max(), {});
    EXPECT_EQ(Machine::read(kManager), "");
    Machine::write("/dev/kv-udma-buf0", "");
    const std::string syncMode = "/sys/class/u-dma-buf/kv-udma-buf1/sync_mode";
    const Record noPermissions = error("Failed to set u-dma-buf permissions: No such file or directory");
    expectNoBuffer(8192,
                   {noPermissions, error("Failed to open " + syncMode + ": No such file or directory")});
    EXPECT_EQ(Machine::read(kManager), "create kv-udma-buf1 8192\n");

    Machine::write(syncMode, "");
    expectNoBuffer(8192, {noPermissions, debug("Mapping /dev/kv-udma-buf1"),
                          error("Failed to open /dev/kv-udma-buf1: No such file or directory")});
    EXPECT_EQ(Machine::read(syncMode), "2");
    EXPECT_EQ(openFiles(), openBefore);
}

class CachedBuffer : public Udmabuf {
 protected:
    void SetUp() override { ENTER_MACHINE(machine_); }

    void* allocate(std::size_t size) { return kv_udmabuf_allocCachedBuffer(size, &physical_); }

    Machine machine_ = kv::test::machineWithCachedBuffer();
    uintptr_t physical_ = 1;
};

TEST_F(CachedBuffer, IsMappedByItsFirstBlockAndUnmappedWithItsLast) {
    const auto openBefore = openFiles();
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(nullptr), -1);
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(this), -1);
    auto* first = static_cast<char*>(allocate(1));
    EXPECT_EQ(physical_, kCachedAddress);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("u-dma-buf: phys_addr: 0x40000000"), debug("u-dma-buf: size: 16384"),
                            debug("u-dma-buf: devname: /dev/cached-buffer-pcie"),
                            debug("u-dma-buf: Increasing allocation size from 1 to 4096")));
    EXPECT_EQ(openFiles(), openBefore);

    void* second = allocate(2 * 4096);
    EXPECT_EQ(second, first + 4096);
    EXPECT_EQ(physical_, kCachedAddress + 4096);
    void* third = allocate(1);
    EXPECT_EQ(third, first + 3 * 4096);
    first[3 * 4096] = 'x';
    EXPECT_EQ(Machine::read(kCachedNode)[3 * 4096], 'x');
    EXPECT_THAT(log_.take(), ElementsAre(debug("u-dma-buf: Increasing allocation size from 8192 to 8192"),
                                         debug("u-dma-buf: Increasing allocation size from 1 to 4096")));
    EXPECT_EQ(allocate(1), nullptr) << "full";
    EXPECT_EQ(physical_, 0U);
    log_.take();

    const Record noMatch =
        warning("u-dma-buf: Failed to free memory. Address does not match any allocation.");
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(first + 8), -1);
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(first + 2 * 4096), -1);
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(first + kCachedBytes), -1);
    EXPECT_THAT(log_.take(), ElementsAre(noMatch, noMatch, noMatch));
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(first - 1), -1);
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(first + kCachedBytes + 1), -1);

    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(second), 0);
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(second), 0) << "free already";
    kv_udmabuf_printCachedMemoryBuffers();
    const auto line = [&](const char* number, std::size_t offset, const char* sizeAndState) {
        return info(kv::utils::formatString("[%s] virt: %p  phys: %p  size: %s", number, first + offset,
                                            reinterpret_cast<void*>(kCachedAddress + offset), sizeAndState));
    };
    EXPECT_THAT(log_.take(), ElementsAre(line("00", 0, "0x1000  used"), line("01", 4096, "0x2000  free"),
                                         line("02", 3 * 4096UL, "0x1000  used")));
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(first), 0);
    EXPECT_THAT(log_.take(), IsEmpty());
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(third), 0);
    kv_udmabuf_printCachedMemoryBuffers();
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("u-dma-buf: All allocations have been freed. Unmapping the buffer."),
                            info("[empty]")));
    EXPECT_THAT(Machine::read("/proc/self/maps"), testing::Not(testing::HasSubstr(kCachedNode)));
    EXPECT_NE(allocate(kCachedBytes), nullptr) << "mapped again";
}

TEST_F(CachedBuffer, RefusesSizesThatCannotBeRoundedUp) {
    EXPECT_EQ(allocate(0), nullptr);
    EXPECT_EQ(allocate(std::numeric_limits<std::size_t>::max() - 4094), nullptr);
    EXPECT_EQ(physical_, 0U);
    EXPECT_THAT(log_.take(), IsEmpty());
    EXPECT_EQ(allocate(std::numeric_limits<std::size_t>::max() - 4095), nullptr) << "just too large";
}

TEST_F(CachedBuffer, TellsWhatIsMissingAndTriesAgain) {
    const std::string folder = kCachedFolder;
    const struct {
        std::string file;
        const char* text;
        const char* message;
    } cases[] = {{folder + "phys_addr", nullptr, "Failed to read physical address"},
                 {folder + "size", nullptr, "Failed to read buffer size"},
                 {folder + "uevent", "MAJOR=240\nMINOR=0\n", "Failed to read device name"},
                 {kCachedNode, nullptr, "Failed to open /dev/cached-buffer-pcie"},
                 {folder + "uevent", nullptr, "Failed to find \"cached-buffer-pcie\""}};
    const auto openBefore = openFiles();
    for (const auto& each : cases) {
        const std::string sound = Machine::read(each.file);
        Machine::remove(each.file);
        if (each.text != nullptr) {
            Machine::write(each.file, each.text);
        }
        EXPECT_EQ(allocate(1), nullptr);
        auto records = log_.take();
        ASSERT_GE(records.size(), 2U);
        EXPECT_EQ(records.back(), error("u-dma-buf: Failed to initialize buffer stack."));
        EXPECT_EQ(records.end()[-2], error(std::string("u-dma-buf: ") + each.message));
        Machine::write(each.file, sound);
    }
    EXPECT_EQ(openFiles(), openBefore);
    EXPECT_NE(allocate(1), nullptr);
}

TEST_F(CachedBuffer, ThrowsForAnAttributeThatIsNoNumberAndLeavesTheLockFree) {
    for (const char* attribute : {"phys_addr", "size"}) {
        const std::string file = std::string(kCachedFolder) + attribute;
        const std::string sound = Machine::read(file);
        Machine::write(file, "soon\n");
        EXPECT_THROW(allocate(1), std::invalid_argument);
        Machine::write(file, "99999999999999999999\n");
        EXPECT_THROW(allocate(1), std::out_of_range);
        EXPECT_EQ(physical_, 0U);
        Machine::write(file, sound);
        auto other = std::async(std::launch::async, [&] { return allocate(1); });
        void* block = other.get();
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(kv_udmabuf_freeCachedBuffer(block), 0);
    }
}

TEST_F(CachedBuffer, SurvivesABufferThatCannotBeMapped) {
    Machine::write(std::string(kCachedFolder) + "size", "0\n");
    EXPECT_EQ(allocate(1), nullptr);
    EXPECT_EQ(kv_udmabuf_freeCachedBuffer(reinterpret_cast<void*>(4096)), -1);
}

TEST_F(CachedBuffer, ServesSeveralThreads) {
    std::atomic<int> faults = 0;
    std::vector<std::thread> threads;
    for (unsigned char id = 1; id <= 4; ++id) {
        threads.emplace_back([id, &faults] {
            std::minstd_rand random(id);
            for (int round = 0; round < 1000; ++round) {
                const std::size_t size = random() % 8192 + 1;
                uintptr_t physical = 0;
                auto* block = static_cast<unsigned char*>(kv_udmabuf_allocCachedBuffer(size, &physical));
                if (block == nullptr) {
                    continue;  // the others have it all
                }
                std::memset(block, id, size);
                std::this_thread::yield();
                faults += block[0] == id && block[size - 1] == id ? 0 : 1;
                faults += kv_udmabuf_freeCachedBuffer(block) == 0 ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(faults, 0);
    kv_udmabuf_printCachedMemoryBuffers();
    EXPECT_EQ(log_.take().back(), info("[empty]"));
}

TEST_F(CachedBuffer, IsLookedForOnce) {
    EXPECT_EQ(kv_udmabuf_areCacheCoherentBuffersAvailable(), 1);
    Machine::remove("/sys/class/u-dma-buf/cached-buffer-pcie");
    EXPECT_EQ(kv_udmabuf_areCacheCoherentBuffersAvailable(), 1);
    EXPECT_THAT(log_.take(), ElementsAre(debug("u-dma-buf: cache-coherent buffers available")));
}

TEST_F(Udmabuf, HasNoCachedBufferOnAnotherMachine) {
    Machine machine;
    ENTER_MACHINE(machine);
    const std::string folder = "/sys/class/u-dma-buf/cached-buffer-pcie";
    std::filesystem::create_directories("/sys/class/u-dma-buf");
    std::filesystem::create_symlink(folder, folder);
    EXPECT_THROW(kv_udmabuf_areCacheCoherentBuffersAvailable(), std::filesystem::filesystem_error);
    Machine::remove(folder);
    EXPECT_EQ(kv_udmabuf_areCacheCoherentBuffersAvailable(), 0);
    EXPECT_EQ(kv_udmabuf_areCacheCoherentBuffersAvailable(), 0);
    EXPECT_THAT(log_.take(), ElementsAre(debug("u-dma-buf: cache-coherent buffers not available")));
}

}  // namespace
