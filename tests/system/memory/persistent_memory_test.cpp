// Persistent memory from one program run to the next, each in an address space that the kernel laid out anew.

#include <cstdlib>
#include <cstring>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>
#include <kv/memory.h>

#include "kernel_view.h"
#include "support/shell.h"

using kv::test::mappingsOf;
using kv::utils::formatString;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

constexpr int kRuns = 4;
constexpr uint32_t kFragmentBytes = 0x10000;
constexpr uint32_t kLargeBytes = 300000;
constexpr const char* kRunVariable = "KV_TEST_RUN";

/** A ring with a node of each run. */
struct Node {
    Node* next;
    unsigned char* large; /**< more than fits into the block as it was made */
    const void* stack;    /**< where the run had its stack */
};

/** @return the node of the last run; null where the ring is not as these runs left it */
Node* findNodes(int runs, std::set<const void*>* stacks) {
    auto* const first = static_cast<Node*>(kv_getPersistentMemory("ring"));
    Node* last = nullptr;
    for (int run = 0; run < runs; ++run) {
        last = run == 0 ? first : last->next;
        const bool isWhole = last != nullptr && last->large[0] == run + 1 &&
                             std::memcmp(last->large, last->large + 1, kLargeBytes - 1) == 0;
        EXPECT_TRUE(isWhole) << "node of run " << run;
        if (!isWhole) {
            return nullptr;
        }
        stacks->insert(last->stack);
    }
    EXPECT_EQ(last == nullptr ? nullptr : last->next, first);
    return last;
}

void addNode(int run) {
    std::set<const void*> stacks;
    Node* const last = findNodes(run, &stacks);
    auto* const node = static_cast<Node*>(kv_allocPersistentMemory("ring", sizeof(Node)));
    ASSERT_NE(node, nullptr);
    auto* const large = static_cast<unsigned char*>(kv_allocPersistentMemory("large", kLargeBytes));
    ASSERT_NE(large, nullptr);
    std::memset(large, run + 1, kLargeBytes);
    *node = {run == 0 ? node : last->next, large, &stacks};
    (run == 0 ? node : last)->next = node;
}

TEST(PersistentMemory, IsAtTheSameAddressesInEveryRun) {
    if (const char* run = std::getenv(kRunVariable)) {
        addNode(std::atoi(run));
        return;
    }
    kv_freePersistentMemory();
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string program = fs::read_symlink("/proc/self/exe");
    for (int run = 0; run < kRuns; ++run) {
        const auto outcome =
            kv::test::shell(formatString("%s=%d %s --gtest_filter=%s.%s", kRunVariable, run, program.c_str(),
                                         test->test_suite_name(), test->name()));
        ASSERT_EQ(outcome.status, 0) << outcome.output;
    }
    std::set<const void*> stacks;
    ASSERT_NE(findNodes(kRuns, &stacks), nullptr);
    EXPECT_GT(stacks.size(), 1U) << "the runs had one layout, which proves nothing";

    const uintptr_t ring = reinterpret_cast<uintptr_t>(kv_getPersistentMemory("ring")) & ~uintptr_t{0xFFF};
    EXPECT_THAT(mappingsOf("/dev/shm/ring"),
                HasSubstr(formatString("%lx-%lx rw-s 00000000\n", ring, ring + kFragmentBytes)));
    EXPECT_EQ(fs::file_size("/dev/shm/ring"), kFragmentBytes);
    EXPECT_EQ(fs::file_size("/dev/shm/large"), (kRuns * 5 + 1) * kFragmentBytes)
        << "the first fragment is empty";

    kv_freePersistentMemory();
    EXPECT_TRUE(fs::is_empty("/dev/shm"));
    EXPECT_EQ(kv_getPersistentMemory("ring"), nullptr);
    kv_freePersistentMemory();
}

}  // namespace
