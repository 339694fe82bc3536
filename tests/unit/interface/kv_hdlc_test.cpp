#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/hdlc.h>
#include <kv/lifecycle.h>

#include "support/log_capture.h"

using kv::test::error;
using kv::test::LogCapture;
using testing::ElementsAre;

namespace {

TEST(EntryPoints, KeepTheRegistryOfAGeneratedModel) {
    kv_mod_info* const first = kv_hdlc_module_register_v19b(7, 1);
    kv_mod_info* const second = kv_hdlc_module_register_v19b(7, 3);
    EXPECT_EQ(kv_hdlc_module_get_single_v24a(7, 3), second);
    kv_mod_list modules = nullptr;
    ASSERT_EQ(kv_hdlc_module_get_v19b(&modules, 7, -1), 2);
    EXPECT_EQ(modules[0], first);
    std::free(modules);

    kv_block_info* const block = kv_hdlc_block_register_v24a(second, 2, 5);
    EXPECT_EQ(kv_hdlc_block_get_v24a(second, 2, 5), block);
    kv_hdlc_block_unregister_v24a(second, 2, 5);
    EXPECT_EQ(kv_hdlc_block_get_v24a(second, 2, 5), nullptr);
    kv_hdlc_module_unregister_v19b(7, 3);
    EXPECT_EQ(kv_hdlc_module_get_single_v24a(7, 3), nullptr);
    kv_hdlc_module_unregister_v19b(7, 1);
}

TEST(EntryPoints, LeaveWhatTheCurrentFunctionsLeave) {
    LogCapture log;
    EXPECT_EQ(kv_hdlc_inpDW_v19b(0x60), 0U);
    kv_hdlc_outpDW_v19b(0x60, 1);
    EXPECT_THAT(log.take(), ElementsAre(error("kv_inpDW() not implemented for aarch64"),
                                        error("kv_outpDW() not implemented for aarch64")));

    EXPECT_EQ(kv_allocPhysicalMemory_uncached(64), nullptr);
    const auto uncached = log.take();
    EXPECT_EQ(kv_hdlc_allocPhysicalMemory_v19b(64), nullptr);
    EXPECT_EQ(log.take(), uncached) << "the oldest name never was the cached allocation";

    EXPECT_EQ(kv_hdlc_isModelInit_v19b(), 0);
    kv_setModelInit();
    EXPECT_EQ(kv_hdlc_isModelInit_v19b(), 1);
    EXPECT_EQ(kv_hdlc_isFirstModelLoad_v26a(), 1);

    const double before = kv_hdlc_getElapsedTime_v19b();
    kv_hdlc_wait_s_v19b(0.002);
    EXPECT_GE(kv_hdlc_getElapsedTime_v19b() - before, 0.002);
}

}  // namespace
