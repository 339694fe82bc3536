#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include <gtest/gtest.h>

#include <kv/diagnostics.h>

#include "unit/registry/failing_allocations.h"
#include "unit/registry/registry_test.h"

using kv::test::FailingAllocation;

namespace {

using RegistryOutOfMemory = kv::test::RegistryTest;

TEST_F(RegistryOutOfMemory, NamesTheModuleAllocationThatFailedAndSucceedsAfterwards) {
    const std::array reasons = {"Failed to allocate memory for module registry\n",
                                "Failed to allocate memory for new module type list\n",
                                "Failed to allocate memory for module list\n",
                                "Failed to allocate memory for new module list\n",
                                "Failed to allocate memory for new module registry entry\n"};
    for (int failing = 0; failing < static_cast<int>(reasons.size()); ++failing) {
        {
            const FailingAllocation failure(failing);
            EXPECT_EQ(kv_module_register(5, 3), nullptr);
            EXPECT_TRUE(FailingAllocation::happened());
        }
        EXPECT_STREQ(pKvErrorStr, reasons.at(failing));
        EXPECT_EQ(kv_module_get_single(5, 3), nullptr);

        ASSERT_NE(kv_module_register(5, 3), nullptr);
        EXPECT_EQ(module_registry->Length, 6U);
        EXPECT_EQ(module_registry->nTypes, 1U);
        EXPECT_EQ(module_registry->types[5]->Length, 4U);
        kv_module_unregister(5, 3);
        ASSERT_EQ(module_registry, nullptr);
    }
}

TEST_F(RegistryOutOfMemory, NamesTheBlockAllocationThatFailedAndSucceedsAfterwards) {
    const std::array reasons = {
        "Failed to allocate memory for block registry\n",
        "Failed to allocate memory for new block type list\n", "Failed to allocate memory for block list\n",
        "Failed to allocate memory for new block list\n", "Failed to allocate memory for new block entry\n"};
    kv_mod_info* module = kv_module_register(0, 0);
    for (int failing = 0; failing < static_cast<int>(reasons.size()); ++failing) {
        {
            const FailingAllocation failure(failing);
            EXPECT_EQ(kv_block_register_with_uid(module, 2, 9), nullptr);
            EXPECT_TRUE(FailingAllocation::happened());
        }
        EXPECT_STREQ(pKvErrorStr, reasons.at(failing));
        EXPECT_EQ(kv_block_get_by_uid(module, 2, 9), nullptr);

        const kv_block_info* block = kv_block_register_with_uid(module, 2, 9);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->id, 0U);
        kv_block_unregister(module, 2, 0);
        ASSERT_EQ(module->block_registry, nullptr);
    }
}

TEST_F(RegistryOutOfMemory, IsNotBroughtAboutByBlocksThatComeAndGo) {
    kv_mod_info* module = kv_module_register(0, 0);
    const long before = kv::test::liveAllocations();
    kv_block_register(module, 2, 5);
    kv_block_unregister(module, 2, 5);
    EXPECT_EQ(kv::test::liveAllocations(), before) << "the last block takes all that was made for it";

    kv_block_register(module, 2, 5);
    kv_module_unregister(0, 0);
    EXPECT_EQ(kv::test::liveAllocations(), before - 5 + 2) << "a module leaves the two arrays of its blocks";
}

TEST_F(RegistryOutOfMemory, ListsNoModulesOfAListLeftEmptyByAFailure) {
    {
        const FailingAllocation failure(4);
        EXPECT_EQ(kv_module_register(1, 2), nullptr);
    }
    kv_mod_list list = nullptr;
    EXPECT_EQ(kv_module_get(&list, 1, -1), 0);
    EXPECT_NE(list, nullptr);
    std::free(list);
    ASSERT_NE(kv_module_register(1, 0), nullptr) << "the list is still usable";
}

TEST_F(RegistryOutOfMemory, CoversTheLargestIndexThatHasNoSuccessor) {
    EXPECT_EQ(kv_module_register(std::numeric_limits<uint32_t>::max(), 0), nullptr);
    EXPECT_STREQ(pKvErrorStr, "Failed to allocate memory for new module type list\n");
    EXPECT_EQ(kv_module_register(0, std::numeric_limits<uint32_t>::max()), nullptr);
    EXPECT_STREQ(pKvErrorStr, "Failed to allocate memory for new module list\n");
    ASSERT_NE(kv_module_register(0, 0), nullptr) << "which lets the registry go again";
}

}  // namespace
