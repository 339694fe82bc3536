#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "os/mapping.h"
#include "os/sd_device.h"
#include "os/unique_fd.h"
#include "support/machine_test.h"

namespace {

using kv::os::Mapping;
using kv::os::openFile;
using kvsim::Machine;
using std::filesystem::exists;
using testing::Each;

constexpr std::uint64_t kAddress = 0x70000000;
constexpr std::uint64_t kPage = 4096;

std::string attribute(const std::string& buffer, const std::string& name) {
    return Machine::read("/sys/class/u-dma-buf/" + buffer + "/" + name);
}

std::uint64_t addressOf(const std::string& buffer) {
    return std::stoull(attribute(buffer, "phys_addr"), nullptr, 16);
}

/** @return 0 or an error number */
int command(const std::string& text) {
    const auto manager = openFile("/dev/u-dma-buf-mgr", O_WRONLY);
    return ::write(manager.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
}

Mapping map(const std::string& buffer, std::size_t sizeBytes) {
    const auto file = openFile("/dev/" + buffer, O_RDWR);
    return {::mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0), sizeBytes};
}

class DmaManager : public testing::Test {
 protected:
    void SetUp() override { ::alarm(20); }

    Machine machine_;
};

TEST_F(DmaManager, MakesABufferAndTakesItAwayBeforeTheWriteReturns) {
    machine_.dmaMemory(kAddress, 16 * kPage);
    ENTER_MACHINE(machine_);
    ASSERT_EQ(command("create speech 4097\n"), 0);

    struct stat status {};
    ASSERT_EQ(::stat("/dev/speech", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(status.st_size, 2 * static_cast<off_t>(kPage));
    EXPECT_THAT(Machine::read("/dev/speech"), Each('\0'));
    EXPECT_EQ(attribute("speech", "size"), "4097\n") << "as it was asked for";
    EXPECT_EQ(attribute("speech", "phys_addr"), "0x0000000070000000\n");
    Machine::write("/sys/class/u-dma-buf/speech/sync_mode", "2");

    const auto device = kv::os::findDevice("u-dma-buf", "speech");
    ASSERT_NE(device, nullptr);
    EXPECT_STREQ(kv::os::nodeOf(*device), "/dev/speech");
    const std::string number = attribute("speech", "dev").substr(0, std::strlen("242:1"));
    EXPECT_TRUE(std::filesystem::equivalent("/sys/dev/char/" + number, "/sys/class/u-dma-buf/speech"));

    const Mapping memory = map("speech", kPage);
    ASSERT_TRUE(memory);
    auto* const bytes = static_cast<char*>(memory.get());
    bytes[7] = 'x';
    EXPECT_EQ(Machine::read("/dev/speech")[7], 'x');

    ASSERT_EQ(command("delete speech\n"), 0);
    for (const std::string& path :
         {std::string("/dev/speech"), "/sys/dev/char/" + number, "/run/udev/data/c" + number,
          std::string("/sys/class/u-dma-buf/speech"), std::string("/sys/devices/virtual/u-dma-buf/speech")}) {
        EXPECT_FALSE(exists(path)) << path;
    }
    EXPECT_EQ(bytes[7], 'x') << "who has it mapped keeps it";
}

TEST_F(DmaManager, TakesMemoryWhereItFirstFits) {
    machine_.dmaMemory(kAddress, 4 * kPage);
    ENTER_MACHINE(machine_);
    ASSERT_EQ(command("create a 1\n"), 0);
    ASSERT_EQ(command("create b 0x1000\n"), 0);
    ASSERT_EQ(command("create c 8192\n"), 0);
    EXPECT_EQ(addressOf("b"), kAddress + kPage);
    EXPECT_EQ(addressOf("c"), kAddress + 2 * kPage);
    EXPECT_EQ(command("create d 1\n"), ENOMEM);

    ASSERT_EQ(command("delete a\n"), 0);
    EXPECT_EQ(command("create d 4097\n"), ENOMEM);
    ASSERT_EQ(command("delete b\n"), 0);
    ASSERT_EQ(command("create d 4097\n"), 0);
    EXPECT_EQ(addressOf("d"), kAddress);
    ASSERT_EQ(command("delete c\n"), 0);
    EXPECT_EQ(command("create e 0x2001\n"), ENOMEM) << "no more than the rest up to the end";
}

TEST_F(DmaManager, RefusesWhatItCannotDoAndStaysAsItWas) {
    machine_.dmaMemory(kAddress, 16 * kPage);
    ENTER_MACHINE(machine_);
    ASSERT_EQ(command("create there 1\n"), 0);
    const struct {
        const char* text;
        int error;
    } cases[] = {{"create x 1", EINVAL},
                 {"create x\n", EINVAL},
                 {"create x 1 2\n", EINVAL},
                 {"create x 0\n", EINVAL},
                 {"create x -1\n", EINVAL},
                 {"create x 1k\n", EINVAL},
                 {"create x 0x\n", EINVAL},
                 {"create ../x 1\n", EINVAL},
                 {"create x 1\ncreate y 1\n", EINVAL},
                 {"make x 1\n", EINVAL},
                 {"\n", EINVAL},
                 {"delete\n", EINVAL},
                 {"delete x\n", ENODEV},
                 {"create there 1\n", EEXIST},
                 {"create null 1\n", EEXIST},
                 {"create x 0x10001\n", ENOMEM},
                 {"create x 18446744073709551615\n", ENOMEM},
                 {"create x 18446744073709551616\n", EINVAL}};
    for (const auto& each : cases) {
        EXPECT_EQ(command(each.text), each.error) << each.text;
    }
    EXPECT_TRUE(exists("/dev/null"));
    EXPECT_EQ(command(("create " + std::string(256, 'n') + " 1\n")), ENAMETOOLONG);
    EXPECT_EQ(command("create x 0xf000\n"), 0) << "all that is left";
    EXPECT_THROW(static_cast<void>(Machine::read("/dev/u-dma-buf-mgr")), std::system_error);
}

TEST_F(DmaManager, LeavesTheCachedBufferOfTheBootAlone) {
    machine_.dmaMemory(kAddress, 16 * kPage).cachedBuffer(0x78000000, 0x4000000);
    ENTER_MACHINE(machine_);
    const auto device = kv::os::findDevice("u-dma-buf", "cached-buffer-pcie");
    ASSERT_NE(device, nullptr);
    EXPECT_STREQ(kv::os::attributeOf(*device, "phys_addr"), "0x0000000078000000");
    EXPECT_STREQ(kv::os::attributeOf(*device, "size"), "67108864");
    EXPECT_STREQ(kv::os::nodeOf(*device), "/dev/cached-buffer-pcie");

    EXPECT_EQ(command("create cached-buffer-pcie 4096\n"), EEXIST);
    EXPECT_EQ(command("delete cached-buffer-pcie\n"), ENODEV);
    EXPECT_EQ(std::filesystem::file_size("/dev/cached-buffer-pcie"), 0x4000000U);
}

TEST_F(DmaManager, IsThereOnlyWithMemoryToGive) {
    machine_.cachedBuffer(0x78000000, 0x1000);
    ENTER_MACHINE(machine_);
    EXPECT_FALSE(exists("/dev/u-dma-buf-mgr"));
    EXPECT_TRUE(exists("/dev/cached-buffer-pcie"));
}

}  // namespace
