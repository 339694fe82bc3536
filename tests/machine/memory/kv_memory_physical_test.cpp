#include <sys/mman.h>

#include "cached_buffer_machine.h"
#include "os/unique_fd.h"

using kv::test::debug;
using kv::test::info;
using kv::test::kManager;
using kv::test::warning;
using kv::utils::formatString;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class PhysicalMemory : public testing::Test {
 protected:
    kv::test::LogCapture log_;
    uintptr_t physical_ = 1;
};

TEST_F(PhysicalMemory, OfThePlainKindIsNeverGiven) {
    const std::string answer =
        " is not, and will not, be defined in libkv for Linux. Use kv_allocPhysicalMemory_v2() instead.";
    EXPECT_EQ(kv_allocPhysicalMemory_cached(1), nullptr);
    EXPECT_EQ(kv_allocPhysicalMemory_uncached(1), nullptr);
    EXPECT_THAT(log_.take(), ElementsAre(info("kv_allocPhysicalMemory_cached" + answer),
                                         info("kv_allocPhysicalMemory_uncached" + answer)));
}

TEST_F(PhysicalMemory, TellsWhyThereIsNoUncachedBuffer) {
    Machine machine;
    ENTER_MACHINE(machine);
    EXPECT_EQ(kv_allocPhysicalMemory_v2(4096, &physical_), nullptr);
    EXPECT_EQ(physical_, 0U);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("u-dma-buf: cache-coherent buffers not available"),
                            debug("Allocating 0x1000 bytes of physical memory"),
                            debug(" --> Single pages don't go into CMA. Allocating 0x2000"),
                            warning("Failed to open u-dma-buf-mgr: No such file or directory"),
                            info("Failed to clear old u-dma-buffers. Do you have the required kernel modules "
                                 "inserted?")));
    Machine::write(kManager, "");
    EXPECT_EQ(kv_allocPhysicalMemory_v2(4097, &physical_), nullptr);
    const auto records = log_.take();
    EXPECT_EQ(records.front(), debug("Allocating 0x1001 bytes of physical memory"));
    EXPECT_EQ(records.back(), info("Could not create buffer."));
    EXPECT_EQ(Machine::read(kManager), "create kv-udma-buf0 4097\n");

    kv_freePhysicalMemory(nullptr);
    EXPECT_THAT(log_.take(), IsEmpty());
    kv_freePhysicalMemory(this);
    EXPECT_THAT(log_.take(), ElementsAre(info(formatString("No buffer matching address %p was found to free",
                                                           static_cast<void*>(this)))));
}

TEST_F(PhysicalMemory, IsFoundThroughThePageMap) {
    const std::size_t pageBytes = 4096;
    auto* pages = static_cast<char*>(
        ::mmap(nullptr, 2 * pageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    pages[0] = 1;
    ASSERT_EQ(::mlock(pages, pageBytes), 0);
    uint64_t entry = 0;
    const kv::os::UniqueFd pageMap = kv::os::openFile("/proc/self/pagemap", O_RDONLY);
    const auto place = static_cast<off_t>(reinterpret_cast<uintptr_t>(pages) / pageBytes * sizeof entry);
    ASSERT_EQ(::pread(pageMap.get(), &entry, sizeof entry, place), ssize_t{sizeof entry});
    const uint64_t frame = entry & ((uint64_t{1} << 55) - 1);
    if (::geteuid() == 0) {
        EXPECT_NE(frame, 0U) << "root sees frame numbers";
    }
    const auto openBefore = kv::test::openFiles();
    EXPECT_EQ(kv_getPhysicalBufferAddr(pages + 0x123), frame * pageBytes + 0x123);
    EXPECT_EQ(kv_getPhysicalBufferAddr(pages + pageBytes + 0x123), 0x123U) << "not there yet";
    EXPECT_EQ(kv_getPhysicalBufferAddr(reinterpret_cast<void*>(~uintptr_t{0})), 0U) << "beyond the page map";
    EXPECT_EQ(kv::test::openFiles(), openBefore);
    EXPECT_THAT(log_.take(), IsEmpty());
    ::munmap(pages, 2 * pageBytes);
}

}  // namespace
