#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/mman.h>
#include <thread>

#include "persistent_machine.h"

using kv::test::inChild;
using kv::test::kFragmentBytes;
using kv::test::kHeadBytes;
using kv::test::kListEntries;
using kv::test::kListObject;
using kv::test::sharedWithChildren;
using kv::test::startChild;
using kv::test::waitFor;

namespace {

class PersistentMemoryAfterRestart : public kv::test::PersistentMachine {};

struct Node {
    Node* next;
    int value;
};

TEST_F(PersistentMemoryAfterRestart, HoldsPointersThatAreStillValid) {
    const int firstRun = inChild([] {
        auto* one = static_cast<Node*>(kv_allocPersistentMemory("chain", sizeof(Node)));
        auto* two = static_cast<Node*>(kv_allocPersistentMemory("elsewhere", sizeof(Node)));
        auto* three = static_cast<Node*>(kv_allocPersistentMemory("chain", 3 * kFragmentBytes));
        *one = {two, 1};
        *two = {three, 2};
        *three = {one, 3};
    });
    EXPECT_EQ(firstRun, 0);
    const int secondRun = inChild([] {
        const auto* node = static_cast<Node*>(kv_getPersistentMemory("chain"));
        ASSERT_NE(node, nullptr);
        for (const int value : {1, 2, 3, 1}) {
            EXPECT_EQ(node->value, value);
            node = node->next;
        }
    });
    EXPECT_EQ(secondRun, 0);
}

TEST_F(PersistentMemoryAfterRestart, GoesOnWhereItEnded) {
    constexpr uint32_t kSize = 30000;  // two fit in a fragment
    auto& memoryOfRun = sharedWithChildren<std::array<char*, 4>>();
    for (std::size_t run = 0; run < memoryOfRun.size(); ++run) {
        const int status = inChild([&] {
            for (std::size_t i = 0; i < run; ++i) {
                (void)::open("/dev/null", O_RDONLY);  // the descriptors of one run are not those of the next
            }
            memoryOfRun[run] = static_cast<char*>(kv_allocPersistentMemory("log", kSize));
        });
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(memoryOfRun[1], memoryOfRun[0] + kSize);
    EXPECT_GE(std::abs(memoryOfRun[2] - memoryOfRun[0]), kFragmentBytes) << "a second fragment";
    EXPECT_EQ(memoryOfRun[3], memoryOfRun[2] + kSize);
    EXPECT_EQ(std::filesystem::file_size(objectPath("log")), 2 * kFragmentBytes);
}

/** What a writer has completed before it was killed. */
struct Journal {
    struct Record {
        int block;
        uint32_t size;
        unsigned char* memory;
    };
    std::atomic<int> completed;
    std::array<Record, 4000> records;
};

std::string blockName(int block) {
    return "block " + std::to_string(block);
}

unsigned char markOf(int record) {
    return static_cast<unsigned char>(record * 37 + 1);
}

/** Each new block is followed by memory for which an older block has to grow. */
void writeUntilKilled(Journal& journal) {
    for (int record = 0; record < static_cast<int>(journal.records.size()); ++record) {
        const bool isNewBlock = record % 2 == 0 && record < 2000;
        const int block = isNewBlock ? record / 2 : record / 4;
        const uint32_t size = isNewBlock ? 100 : kFragmentBytes / 2;
        auto* memory = static_cast<unsigned char*>(kv_allocPersistentMemory(blockName(block).c_str(), size));
        if (memory == nullptr) {
            break;
        }
        std::memset(memory, markOf(record), size);
        journal.records[record] = {block, size, memory};
        journal.completed = record + 1;
    }
    ::pause();
}

void findCompletedBlocks(const Journal& journal) {
    for (int record = 0; record < journal.completed; ++record) {
        const auto& [block, size, memory] = journal.records[record];
        const void* root = kv_getPersistentMemory(blockName(block).c_str());
        ASSERT_NE(root, nullptr) << blockName(block);
        if (size == 100) {
            EXPECT_EQ(root, memory) << blockName(block);
        }
        EXPECT_EQ(memory[0], markOf(record));
        EXPECT_EQ(std::memcmp(memory, memory + 1, size - 1), 0) << blockName(block);
    }
}

TEST_F(PersistentMemoryAfterRestart, IsWholeWheneverTheWriterIsKilled) {
    std::minstd_rand random(2024);
    int completed = 0;
    for (int round = 0; round < 100; ++round) {
        auto& journal = sharedWithChildren<Journal>();
        const pid_t writer = startChild([&] { writeUntilKilled(journal); });
        // At any moment; mostly after some records, however slow the machine is.
        const int progress = static_cast<int>(random() % 80) - 20;
        while (journal.completed < progress) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        ::kill(writer, SIGKILL);
        waitFor(writer);
        completed += journal.completed;

        const int reader = inChild([&] {
            findCompletedBlocks(journal);
            EXPECT_NE(kv_allocPersistentMemory("after the kill", 8), nullptr);
            EXPECT_NE(kv_allocPersistentMemory(blockName(0).c_str(), 2 * kFragmentBytes), nullptr);
        });
        ASSERT_EQ(reader, 0) << "killed in round " << round << " after " << journal.completed << " records";
        ASSERT_EQ(inChild([&] {
                      findCompletedBlocks(journal);
                      kv_freePersistentMemory();
                  }),
                  0)
            << "round " << round;
        ::munmap(&journal, sizeof journal);
    }
    EXPECT_GT(completed, 1000) << "the writers got no further than their start";
}

// What a process leaves when it is killed between two steps, each state made by hand.
TEST_F(PersistentMemoryAfterRestart, RecoversFromEveryHalfDoneStep) {
    const auto write = [](uint32_t size) {
        return inChild([size] { EXPECT_NE(kv_allocPersistentMemory("log", size), nullptr); });
    };
    kvsim::Machine::write(kListObject, "");
    kvsim::Machine::write(objectPath("log"), std::string(kFragmentBytes, 'x'));
    EXPECT_EQ(write(100), 0) << "a list without its size, an object that is not in the list";
    EXPECT_EQ(valueAt<uint32_t>(kListObject, 0), 1U);

    setValueAt<uint64_t>(kListObject, kListEntries + 64, 0x6B6C616874);
    EXPECT_EQ(write(100), 0) << "an entry that is not counted";

    std::filesystem::resize_file(objectPath("log"), 3 * kFragmentBytes);
    EXPECT_EQ(write(kFragmentBytes), 0) << "an object that is longer than its fragments";
    const auto longer = std::filesystem::file_size(objectPath("log"));
    EXPECT_EQ(longer, 3 * kFragmentBytes);

    setValueAt<uint32_t>(objectPath("log"), 4, kFragmentBytes);
    EXPECT_EQ(write(3 * kFragmentBytes), 0) << "a fragment that is linked but not counted in the size";
    EXPECT_EQ(std::filesystem::file_size(objectPath("log")), longer + 4 * kFragmentBytes);
    EXPECT_EQ(inChild([] { EXPECT_NE(kv_getPersistentMemory("log"), nullptr); }), 0);

    kvsim::Machine::remove(objectPath("log"));
    EXPECT_EQ(inChild([] {
                  EXPECT_EQ(kv_getPersistentMemory("log"), nullptr);
                  kv_freePersistentMemory();
              }),
              0)
        << "a block that is removed while the list stands";
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm"));
}

}  // namespace
