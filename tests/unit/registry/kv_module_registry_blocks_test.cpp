#include <map>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>

#include "support/log_capture.h"
#include "unit/registry/registry_test.h"

using kv::test::debug;
using kv::test::LogCapture;
using kv::test::trace;
using testing::ElementsAre;

namespace {

class BlockRegistry : public kv::test::RegistryTest {
 protected:
    void SetUp() override {
        RegistryTest::SetUp();
        module_ = kv_module_register(1, 7);
        log_.take();
    }

    kv_mod_info* module_ = nullptr;
    LogCapture log_;
};

TEST_F(BlockRegistry, GrowsLikeTheModulesOneLevelDown) {
    const kv_block_info* block = kv_block_register(module_, 2, 1);
    ASSERT_NE(block, nullptr);
    EXPECT_THAT(
        log_.takeWithoutAddresses(),
        ElementsAre(debug("Register block [type 2, id 1] for module [type 1, id 7]"),
                    trace("Creating block registry"), trace("Block registry: ADDRESS"),
                    trace("Enlarge registry from 0 to 3 block types"), trace("New block type list: ADDRESS"),
                    trace("Creating new block list struct for type 2"),
                    trace("New block list struct: ADDRESS"), trace("Enlarge block list from 0 to 2 blocks"),
                    trace("New block list: ADDRESS")));
    EXPECT_EQ(block->type, 2U);
    EXPECT_EQ(block->id, 1U);
    EXPECT_EQ(block->custom_data, nullptr);
    EXPECT_EQ(module_->block_registry->Length, 3U);
    EXPECT_EQ(module_->block_registry->types[2]->Length, 2U);

    EXPECT_EQ(kv_block_get(module_, 2, 1), block);
    EXPECT_EQ(kv_block_get(module_, 2, 0), nullptr) << "a hole";
    EXPECT_EQ(kv_block_get(module_, 2, 2), nullptr) << "past the blocks";
    EXPECT_EQ(kv_block_get(module_, 3, 0), nullptr) << "past the types";

    log_.take();
    EXPECT_EQ(kv_block_register(module_, 2, 1), nullptr);
    EXPECT_STREQ(pKvErrorStr, "Block already registered\n");
    EXPECT_THAT(log_.take(), ElementsAre(debug("Register block [type 2, id 1] for module [type 1, id 7]")));
    EXPECT_EQ(module_->block_registry->nBlocks, 1U);
}

TEST_F(BlockRegistry, GivesAUidTheLowestFreeId) {
    for (const uint32_t id : {0U, 1U, 3U}) {
        kv_block_register(module_, 0, id);
    }
    log_.take();
    EXPECT_EQ(kv_block_register_with_uid(module_, 0, 77)->id, 2U) << "the hole";
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("Register block by UID [type 0, uid 77] for module [type 1, id 7]"),
                            trace("Found free block ID slot 2"),
                            debug("Register block [type 0, id 2] for module [type 1, id 7]")));
    EXPECT_EQ(kv_block_register_with_uid(module_, 0, 77)->id, 4U) << "one past the end of a full list";
    EXPECT_EQ(module_->block_registry->types[0]->Length, 5U);
    EXPECT_EQ(kv_block_register_with_uid(module_, 6, 0xFFFFFFFFFFFFFFFF)->id, 0U) << "a type without blocks";

    EXPECT_EQ(kv_block_get_by_uid(module_, 0, 77)->id, 2U) << "the lower of two with one uid";
    EXPECT_EQ(kv_block_get_by_uid(module_, 6, 0xFFFFFFFFFFFFFFFF)->id, 0U);
    EXPECT_EQ(kv_block_get_by_uid(module_, 0, 78), nullptr);
    EXPECT_EQ(kv_block_get_by_uid(module_, 5, 77), nullptr);
    EXPECT_EQ(kv_block_get_by_uid(module_, 9, 77), nullptr);
}

// Registration by uid remembers where free ids may begin. Whatever came and went before, the id must be the
// one that a walk from 0 finds.
TEST_F(BlockRegistry, FindsTheSameFreeIdAsAWalkFromZero) {
    std::minstd_rand random(20240317);
    std::map<uint32_t, uint64_t> uids;
    for (uint64_t uid = 1; uid <= 20000; ++uid) {
        const auto id = static_cast<uint32_t>(random() % 200);
        switch (random() % 4) {
            case 0:
                if (kv_block_register(module_, 0, id) != nullptr) {
                    ASSERT_TRUE(uids.emplace(id, 0).second);
                }
                break;
            case 1:
            case 2:
                kv_block_unregister(module_, 0, id);
                uids.erase(id);
                break;
            default: {
                uint32_t expected = 0;
                while (uids.contains(expected)) {
                    ++expected;
                }
                const kv_block_info* block = kv_block_register_with_uid(module_, 0, uid);
                ASSERT_NE(block, nullptr);
                ASSERT_EQ(block->id, expected);
                uids.emplace(expected, uid);
            }
        }
    }
    for (uint32_t id = 0; id < 200; ++id) {
        ASSERT_EQ(kv_block_get(module_, 0, id) != nullptr, uids.contains(id)) << "id " << id;
    }
}

TEST_F(BlockRegistry, DisappearsWithItsLastBlock) {
    kv_block_register(module_, 0, 0);
    kv_block_register(module_, 3, 1);
    log_.take();

    kv_block_unregister(module_, 3, 0);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("Unregistering block [type 3, id 0] for module [type 1, id 7]"),
                            debug("No block registered for: [type 3, id 0]")));
    kv_block_unregister(module_, 3, 1);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("Unregistering block [type 3, id 1] for module [type 1, id 7]"),
                            debug("Cleaning up block list for type 3")));
    kv_block_unregister(module_, 0, 0);
    EXPECT_THAT(log_.take(),
                ElementsAre(debug("Unregistering block [type 0, id 0] for module [type 1, id 7]"),
                            debug("Cleaning up block list for type 0"),
                            debug("Cleaning up block registry for module [type 1, id 7]")));
    EXPECT_EQ(module_->block_registry, nullptr);

    kv_block_register(module_, 0, 0);
    EXPECT_EQ(log_.take().at(1), trace("Creating block registry"));
}

TEST_F(BlockRegistry, GoesWithItsModule) {
    kv_block_register(module_, 0, 2);
    kv_block_register(module_, 2, 0);
    kv_block_register(module_, 2, 1);
    log_.take();
    kv_module_unregister(1, 7);
    EXPECT_THAT(
        log_.take(),
        ElementsAre(debug("Unregister module [type 1, id 7]"),
                    debug("Cleaning up block registry for module [type 1, id 7]"),
                    trace("Cleaning up 3 block types"), trace("Cleaning up 3 blocks for type 0"),
                    trace("Cleaning up block [type 0, id 2]"), trace("Cleaning up block list for type 0"),
                    trace("Cleaning up 2 blocks for type 2"), trace("Cleaning up block [type 2, id 0]"),
                    trace("Cleaning up block [type 2, id 1]"), trace("Cleaning up block list for type 2"),
                    trace("Cleaning up block type list"), debug("Cleaning up module list for type 1"),
                    debug("Cleaning up module registry base")));
}

}  // namespace
