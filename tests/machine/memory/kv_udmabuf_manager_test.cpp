// The DMA buffers of the library on a machine whose u-dma-buf manager makes them.

#include <algorithm>
#include <array>
#include <sys/mman.h>
#include <unistd.h>

#include <boost/log/core.hpp>

#include "cached_buffer_machine.h"
#include "os/mapping.h"
#include "support/child_process.h"

using kv::test::debug;
using kv::test::error;
using kv::test::info;
using kv::test::kManager;
using kv::test::openFiles;
using kv::test::warning;
using kv::utils::formatString;
using kvsim::Machine;
using std::filesystem::exists;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned kMaxBuffers = 256;

std::string attribute(const std::string& buffer, const std::string& name) {
    return Machine::read("/sys/class/u-dma-buf/" + buffer + "/" + name);
}

std::string deviceName(unsigned index) {
    return "kv-udma-buf" + std::to_string(index);
}

class UdmabufManager : public testing::Test {
 protected:
    void SetUp() override {
        ::alarm(20);
        machine_.dmaMemory(0x70000000, 0x4000000);
    }

    Machine machine_;
    kv::test::LogCapture log_;
};

TEST_F(UdmabufManager, MakesOneBufferForEachUncachedRequest) {
    ENTER_MACHINE(machine_);
    const struct {
        std::size_t request;
        const char* size;
        std::uintmax_t memoryBytes;
    } cases[] = {
        {1, "8192\n", 8192}, {4096, "8192\n", 8192}, {4097, "4097\n", 8192}, {8193, "8193\n", 12288}};
    void* addresses[std::size(cases)];
    for (unsigned index = 0; const auto& each : cases) {
        uintptr_t physical = 0;
        auto* const memory = static_cast<char*>(kv_allocPhysicalMemory_v2(each.request, &physical));
        ASSERT_NE(memory, nullptr) << each.request;
        const std::string name = deviceName(index);
        EXPECT_EQ(attribute(name, "size"), each.size) << each.request;
        EXPECT_EQ(std::stoul(attribute(name, "phys_addr"), nullptr, 16), physical);
        EXPECT_EQ(attribute(name, "sync_mode").front(), '2');
        EXPECT_EQ(std::filesystem::file_size("/dev/" + name), each.memoryBytes);
        memory[each.request - 1] = static_cast<char>('a' + index);
        EXPECT_EQ(Machine::read("/dev/" + name)[each.request - 1], static_cast<char>('a' + index));
        addresses[index++] = memory;
    }
    for (void* memory : addresses) {
        kv_freePhysicalMemory(memory);
    }
    EXPECT_TRUE(std::filesystem::is_empty("/sys/class/u-dma-buf"));
}

TEST_F(UdmabufManager, MakesUpTo256Buffers) {
    ENTER_MACHINE(machine_);
    uintptr_t physical = 0;
    std::array<void*, kMaxBuffers> memory;
    for (void*& each : memory) {
        each = kv_allocPhysicalMemory_v2_uncached(4096, &physical);
        ASSERT_NE(each, nullptr);
    }
    static_cast<void>(log_.take());
    EXPECT_EQ(kv_allocPhysicalMemory_v2_uncached(4096, &physical), nullptr);
    EXPECT_EQ(physical, 0U);
    EXPECT_THAT(log_.take(), Contains(error("Maximum of 256 buffers are supported by the u-dma-buf-mgr.")));

    kv_freePhysicalMemory(memory[100]);
    EXPECT_FALSE(exists("/dev/" + deviceName(100)));
    memory[100] = kv_allocPhysicalMemory_v2_uncached(4096, &physical);
    EXPECT_NE(memory[100], nullptr);
    EXPECT_TRUE(exists("/dev/" + deviceName(100)));
    std::ranges::for_each(memory, kv_freePhysicalMemory);
    EXPECT_TRUE(std::filesystem::is_empty("/sys/class/u-dma-buf"));
}

TEST_F(UdmabufManager, IsRidOfWhatAnEarlierProcessLeftBehind) {
    ENTER_MACHINE(machine_);
    ASSERT_EQ(kv::test::inChild([] {
                  uintptr_t physical = 0;
                  for (int n = 0; n < 3; ++n) {
                      EXPECT_NE(kv_allocPhysicalMemory_v2(4096, &physical), nullptr);
                  }
              }),
              0);
    ASSERT_TRUE(exists("/dev/" + deviceName(2)));
    Machine::write(kManager, "create u-dma-buf0 4096\n");

    const auto openBefore = openFiles();
    uintptr_t physical = 0;
    void* const memory = kv_allocPhysicalMemory_v2(4096, &physical);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(physical, 0x70000000U);
    EXPECT_TRUE(exists("/dev/" + deviceName(0)));
    EXPECT_FALSE(exists("/dev/" + deviceName(1)));
    EXPECT_FALSE(exists("/dev/" + deviceName(2)));
    EXPECT_TRUE(exists("/dev/u-dma-buf0")) << "another program's";
    EXPECT_EQ(openFiles(), openBefore);
    kv_freePhysicalMemory(memory);
}

TEST_F(UdmabufManager, MayVanishWhileBuffersAreInUse) {
    ENTER_MACHINE(machine_);
    uintptr_t physical = 0;
    auto* const memory = static_cast<char*>(kv_allocPhysicalMemory_v2(4096, &physical));
    ASSERT_NE(memory, nullptr);
    Machine::remove(kManager);
    static_cast<void>(log_.take());

    memory[0] = 'x';
    EXPECT_EQ(kv_allocPhysicalMemory_v2(4096, &physical), nullptr);
    EXPECT_EQ(physical, 0U);
    EXPECT_THAT(log_.take(), Contains(error("Failed to open u-dma-buf-mgr: No such file or directory")));
    kv_freePhysicalMemory(memory);
    EXPECT_THAT(log_.take(), Contains(info(formatString("Could not free buffer %p.", memory))));
    EXPECT_TRUE(exists("/dev/" + deviceName(0)));

    EXPECT_EQ(kv_allocPhysicalMemory_v2(4096, &physical), nullptr);
    EXPECT_THAT(log_.take(), Contains(warning("Failed to open u-dma-buf-mgr: No such file or directory")));
}

TEST_F(UdmabufManager, IsNotBelievedAboutTheBufferThatItMade) {
    ENTER_MACHINE(machine_);
    const std::string folder = "/sys/class/u-dma-buf/kv-udma-buf0/";
    const struct {
        std::string file;
        const char* text;   /**< null where the file is missing, empty where it is a folder */
        const char* reason; /**< null where the buffer stays mapped */
    } cases[] = {{folder + "phys_addr", nullptr, "open: No such file or directory"},
                 {folder + "phys_addr", "", "read: Is a directory"},
                 {folder + "phys_addr", "-1\n", "read: Invalid argument"},
                 {folder + "phys_addr", "70000000xyz\n", "read: Invalid argument"},
                 {folder + "phys_addr", "10000000000000000\n", "read: Numerical result out of range"},
                 {folder + "size", nullptr, "open: No such file or directory"},
                 {folder + "size", "", nullptr},
                 {folder + "size", "12288\n", nullptr},
                 {folder + "size", "many\n", nullptr}};
    const auto openBefore = openFiles();
    for (const auto& each : cases) {
        SCOPED_TRACE(each.file + (each.text == nullptr ? " is missing" : std::string(" is ") + each.text));
        // The first record comes when the device is made and before it is opened.
        boost::log::core::get()->set_filter([&each](const auto&) {
            std::filesystem::remove(each.file);
            if (each.text != nullptr && *each.text == '\0') {
                std::filesystem::create_directory(each.file);
            } else if (each.text != nullptr) {
                Machine::write(each.file, each.text);
            }
            return true;
        });
        EXPECT_EQ(kv_udmabuf_allocBuffer(8192), nullptr);
        boost::log::core::get()->reset_filter();

        const auto records = log_.take();
        EXPECT_EQ(records.front(), debug("Mapping /dev/kv-udma-buf0"));
        const std::string reason = each.reason == nullptr ? "" : each.reason;
        EXPECT_EQ(records.back(), each.reason == nullptr ? debug("Physical address: 0x70000000")
                                                         : error("Failed to " + reason.substr(0, 4) + " " +
                                                                 each.file + reason.substr(4)));
        const std::string maps = Machine::read("/proc/self/maps");
        EXPECT_EQ(maps.find("kv-udma-buf0") != std::string::npos, each.reason == nullptr);
        EXPECT_TRUE(exists("/dev/kv-udma-buf0"));
        EXPECT_EQ(kv_udmabuf_deleteAllBuffers(), 0);
        EXPECT_FALSE(exists("/dev/kv-udma-buf0"));
    }
    EXPECT_EQ(openFiles(), openBefore);
}

TEST_F(UdmabufManager, IsAskedAgainToFreeWhatCouldNotBeFreed) {
    ENTER_MACHINE(machine_);
    kv_udmabuf_Handle* const buffer = kv_udmabuf_allocBuffer(4096);
    ASSERT_NE(buffer, nullptr);
    static_cast<void>(log_.take());
    auto* const memory = static_cast<char*>(buffer->userPtr);
    buffer->userPtr = memory + 1;
    EXPECT_EQ(kv_udmabuf_freeBuffer(buffer), -1);
    buffer->userPtr = memory;
    memory[0] = 'x';  // mapped still

    std::filesystem::rename(kManager, "/dev/gone");
    EXPECT_EQ(kv_udmabuf_freeBuffer(buffer), -1);
    EXPECT_TRUE(exists("/dev/kv-udma-buf0"));
    std::filesystem::rename("/dev/gone", kManager);
    const int others = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
    const kv::os::Mapping foreign(::mmap(memory, 4096, PROT_READ | PROT_WRITE, others, -1, 0), 4096);
    ASSERT_EQ(foreign.get(), memory) << "unmapped by now";
    EXPECT_EQ(kv_udmabuf_freeBuffer(buffer), 0);
    EXPECT_FALSE(exists("/dev/kv-udma-buf0"));
    memory[0] = 'y';
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(UdmabufManager, IsPassedByWhereThereIsACachedBuffer) {
    machine_.cachedBuffer(0x78000000, 0x3000);
    ENTER_MACHINE(machine_);
    uintptr_t physical = 0;
    auto* const memory = static_cast<char*>(kv_allocPhysicalMemory_v2(1, &physical));
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(physical, 0x78000000U);
    EXPECT_EQ(kv_allocPhysicalMemory_v2(0x2001, &physical), nullptr) << "the other pool does not stand in";
    EXPECT_EQ(physical, 0U);
    EXPECT_FALSE(exists("/dev/kv-udma-buf0"));
    static_cast<void>(log_.take());

    kv_freePhysicalMemory(memory + 1);
    EXPECT_THAT(
        log_.take(),
        ElementsAre(warning("u-dma-buf: Failed to free memory. Address does not match any allocation."),
                    info(formatString("No buffer matching address %p was found to free", memory + 1))));
    kv_freePhysicalMemory(memory);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("u-dma-buf: All allocations have been freed. Unmapping the buffer.")));
}

}  // namespace
