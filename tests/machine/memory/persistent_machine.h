#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/memory.h>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/machine_test.h"

namespace kv::test {

constexpr const char* kListObject = "/dev/shm/kv_persMem_main";
constexpr std::size_t kListEntries = 512;
constexpr std::size_t kEntryBytes = 64;
constexpr std::size_t kEntryAddress = 56;
constexpr std::size_t kHeadBytes = 48;
constexpr uint32_t kFragmentBytes = 65536;
constexpr uint32_t kUsableBytes = kFragmentBytes - kHeadBytes;

/** What a process and the next one know of each other apart from persistent memory. */
template <typename Value>
Value& sharedWithChildren() {
    void* memory = ::mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (memory) Value{};
}

/** A machine whose shared memory is its own, and the log of what the library says on it. */
class PersistentMachine : public testing::Test {
 protected:
    void SetUp() override {
        ENTER_MACHINE(machine_);
        limitSharedMemory(1U << 28);  // without the folders that a machine takes over from the host's
    }

    static std::string objectPath(const std::string& name) { return "/dev/shm/" + name; }

    template <typename Value>
    static Value valueAt(const std::string& object, std::size_t offset) {
        Value value;
        std::memcpy(&value, kvsim::Machine::read(object).substr(offset, sizeof value).data(), sizeof value);
        return value;
    }

    template <typename Value>
    static void setValueAt(const std::string& object, std::size_t offset, Value value) {
        std::string bytes = kvsim::Machine::read(object);
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        kvsim::Machine::write(object, bytes);
    }

    /** Gives the machine another shared memory, of a size. */
    static void limitSharedMemory(std::size_t bytes, unsigned long flags = 0) {
        const std::string size = "size=" + std::to_string(bytes);
        ASSERT_EQ(::mount("tmpfs", "/dev/shm", "tmpfs", flags, size.c_str()), 0) << std::strerror(errno);
    }

    static uint64_t addressOf(const void* memory) { return reinterpret_cast<uint64_t>(memory); }

    kvsim::Machine machine_;
    LogCapture log_;
};

}  // namespace kv::test
