// DMA buffers from the kernel's contiguous memory. cached-buffer-pcie is there from boot, with 4 MiB.

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/memory.h>

#include "kernel_view.h"
#include "support/child_process.h"
#include "support/log_capture.h"

using kv::test::debug;
using kv::test::error;
using kv::test::inChild;
using kv::test::info;
using kv::test::kPageBytes;
using kv::test::mappingsOf;
using kv::test::readText;
using testing::ElementsAre;

namespace {

namespace fs = std::filesystem;

constexpr const char* kCachedBuffer = "cached-buffer-pcie";
constexpr std::size_t kMebibyte = 0x100000;

std::string attribute(const std::string& buffer, const std::string& name) {
    return readText("/sys/class/u-dma-buf/" + buffer + "/" + name);
}

uintptr_t physicalAddressOf(const std::string& buffer) {
    return std::stoul(attribute(buffer, "phys_addr"), nullptr, 16);
}

/** How the driver was last asked to map a buffer. */
std::string mappingOf(const std::string& buffer) {
    return readText("/sys/kernel/debug/kv_udmabuf/" + buffer);
}

std::vector<std::string> buffers() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator("/sys/class/u-dma-buf")) {
        names.push_back(entry.path().filename());
    }
    std::ranges::sort(names);
    return names;
}

void command(const std::string& line) {
    std::ofstream manager("/dev/u-dma-buf-mgr");
    manager << line << std::flush;
    ASSERT_TRUE(manager) << line << std::strerror(errno);
}

/** Contiguous memory that nobody has, in kB. */
long freeContiguousKilobytes() {
    const std::string memory = readText("/proc/meminfo");
    const std::size_t place = memory.find("CmaFree:");
    return place == std::string::npos ? -1 : std::stol(memory.substr(place + std::strlen("CmaFree:")));
}

/** Bytes that go in through one mapping of a buffer must come out of the other: the kernel's is behind its
 * file. */
void expectSameMemory(volatile unsigned char* memory, const std::string& buffer, std::size_t offset,
                      std::size_t size) {
    std::fstream kernelSide("/dev/" + buffer, std::ios::in | std::ios::out | std::ios::binary);
    const auto place = static_cast<std::streamoff>(offset);
    for (const std::size_t byte : {std::size_t{0}, size / 2, size - 1}) {
        const auto value = static_cast<unsigned char>(0x5A + byte);
        memory[byte] = value;
        kernelSide.seekg(place + static_cast<std::streamoff>(byte));
        EXPECT_EQ(kernelSide.get(), value) << buffer << " byte " << byte;
        kernelSide.seekp(place + static_cast<std::streamoff>(byte));
        kernelSide.put(static_cast<char>(~value)).flush();
        EXPECT_EQ(memory[byte], static_cast<unsigned char>(~value)) << buffer << " byte " << byte;
    }
}

/** Looks at every page of a small buffer, and at some all over a large one. */
void expectPagesFrom(uintptr_t physical, unsigned char* memory, std::size_t size) {
    const std::size_t step = std::max<std::size_t>(size / 61 / kPageBytes, 1) * kPageBytes;
    for (std::size_t offset = 0; offset < size; offset += step) {
        ASSERT_EQ(kv_getPhysicalBufferAddr(memory + offset), physical + offset) << "at " << offset;
    }
    EXPECT_EQ(kv_getPhysicalBufferAddr(memory + size - 1), physical + size - 1);
}

class Udmabuf : public testing::Test {
 protected:
    void SetUp() override { ASSERT_THAT(buffers(), ElementsAre(kCachedBuffer)); }
    void TearDown() override { EXPECT_EQ(kv_udmabuf_deleteAllBuffers(), 0); }

    kv::test::LogCapture log_;
};

TEST_F(Udmabuf, GivesEachUncachedRequestContiguousMemoryOfItsOwn) {
    const struct {
        std::size_t request;
        std::size_t size;
    } cases[] = {{1, 8192}, {4096, 8192}, {4097, 4097}, {16 * kMebibyte, 16 * kMebibyte}};
    const long freeBefore = freeContiguousKilobytes();
    std::map<uintptr_t, std::size_t> places;
    std::vector<void*> memories;
    for (int index = 0; const auto& [request, size] : cases) {
        uintptr_t physical = 0;
        auto* const memory =
            static_cast<unsigned char*>(kv_allocPhysicalMemory_v2_uncached(request, &physical));
        ASSERT_NE(memory, nullptr) << request;
        const std::string name = "kv-udma-buf" + std::to_string(index++);
        EXPECT_EQ(attribute(name, "size"), std::to_string(size));
        EXPECT_EQ(physicalAddressOf(name), physical);
        EXPECT_EQ(attribute(name, "sync_mode"), "2");
        EXPECT_EQ(mappingOf(name), "write-combined");
        struct stat status {};
        EXPECT_EQ(::stat(("/dev/" + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, mode_t{S_IFCHR | 0666});
        expectPagesFrom(physical, memory, size);
        expectSameMemory(memory, name, 0, size);
        places.emplace(physical, size);
        memories.push_back(memory);
    }
    ASSERT_EQ(places.size(), std::size(cases));
    for (auto place = places.begin(), next = std::next(place); next != places.end(); place = next++) {
        EXPECT_LE(place->first + place->second, next->first) << "two buffers share memory";
    }
    EXPECT_LE(freeContiguousKilobytes(), freeBefore - 16000) << "it comes from the contiguous memory";

    for (void* memory : memories) {
        kv_freePhysicalMemory(memory);
    }
    EXPECT_THAT(buffers(), ElementsAre(kCachedBuffer));
    EXPECT_FALSE(fs::exists("/dev/kv-udma-buf0"));
    EXPECT_GT(freeContiguousKilobytes(), freeBefore - 8000) << "and goes back, but for what processors keep";
}

TEST_F(Udmabuf, TellsWhatTheKernelHasNoMemoryFor) {
    uintptr_t physical = 1;
    EXPECT_EQ(kv_allocPhysicalMemory_v2_uncached(std::size_t{1} << 36, &physical), nullptr);
    EXPECT_EQ(physical, 0U);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("Allocating 0x0 bytes of physical memory"),
                            error("Failed to set u-dma-buf permissions: No such file or directory"),
                            error("Failed to open /sys/class/u-dma-buf/kv-udma-buf0/sync_mode: "
                                  "No such file or directory"),
                            info("Could not create buffer.")));
    EXPECT_THAT(buffers(), ElementsAre(kCachedBuffer));
}

TEST_F(Udmabuf, OutlivesAKilledProcessUntilTheNextOne) {
    ASSERT_NO_FATAL_FAILURE(command("create another-program 8192\n"));
    const int status = inChild([] {
        uintptr_t physical = 0;
        for (int buffer = 0; buffer < 3; ++buffer) {
            EXPECT_NE(kv_allocPhysicalMemory_v2_uncached(64 * 1024, &physical), nullptr);
        }
        ::raise(SIGKILL);
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_THAT(buffers(), ElementsAre("another-program", kCachedBuffer, "kv-udma-buf0", "kv-udma-buf1",
                                       "kv-udma-buf2"));

    uintptr_t physical = 0;
    void* const memory = kv_allocPhysicalMemory_v2_uncached(64 * 1024, &physical);
    EXPECT_NE(memory, nullptr);
    EXPECT_THAT(buffers(), ElementsAre("another-program", kCachedBuffer, "kv-udma-buf0"));
    kv_freePhysicalMemory(memory);
    EXPECT_NO_FATAL_FAILURE(command("delete another-program\n"));
}

TEST_F(Udmabuf, CutsTheBufferOfTheBootForCachedRequests) {
    ASSERT_EQ(kv_udmabuf_areCacheCoherentBuffersAvailable(), 1);
    const uintptr_t start = physicalAddressOf(kCachedBuffer);
    const std::size_t size = std::stoul(attribute(kCachedBuffer, "size"));
    ASSERT_EQ(size, 4 * kMebibyte);
    EXPECT_EQ(attribute(kCachedBuffer, "dma_coherent"), "1");

    // It is mapped again after the last block was freed.
    for (int round = 0; round < 2; ++round) {
        const std::array<std::size_t, 3> requests = {1, 3 * kMebibyte, 5 * kPageBytes};
        std::array<unsigned char*, requests.size()> blocks{};
        for (std::size_t block = 0, offset = 0; block < blocks.size(); ++block) {
            uintptr_t physical = 0;
            blocks[block] =
                static_cast<unsigned char*>(kv_allocPhysicalMemory_v2(requests[block], &physical));
            ASSERT_NE(blocks[block], nullptr) << requests[block];
            EXPECT_EQ(physical, start + offset);
            expectPagesFrom(physical, blocks[block], requests[block]);
            expectSameMemory(blocks[block], kCachedBuffer, offset, requests[block]);
            offset += (requests[block] + kPageBytes - 1) / kPageBytes * kPageBytes;
        }
        uintptr_t physical = 1;
        EXPECT_EQ(kv_allocPhysicalMemory_v2(kMebibyte, &physical), nullptr) << "there is less than that left";
        EXPECT_EQ(physical, 0U);
        EXPECT_EQ(mappingOf(kCachedBuffer), "cached");
        EXPECT_EQ(std::ranges::count(mappingsOf(std::string("/dev/") + kCachedBuffer), '\n'), 1);
        std::ranges::for_each(blocks, kv_freePhysicalMemory);
        EXPECT_EQ(mappingsOf(std::string("/dev/") + kCachedBuffer), "") << "nobody has a block";
    }
    EXPECT_THAT(buffers(), ElementsAre(kCachedBuffer)) << "no other buffer was made";
}

}  // namespace
