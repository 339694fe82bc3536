#pragma once

#include <cstdint>
#include <cstring>
#include <string>

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

/** A machine whose shared memory is its own, and the log of what the library says on it. */
class PersistentMachine : public testing::Test {
 protected:
    void SetUp() override { ENTER_MACHINE(machine_); }

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

    static uint64_t addressOf(const void* memory) { return reinterpret_cast<uint64_t>(memory); }

    kvsim::Machine machine_;
    LogCapture log_;
};

}  // namespace kv::test
