#include <cstdint>

#include <gtest/gtest.h>

#include "target/kv_target_internal.h"

namespace {

TEST(MarketingName, IsThereForEveryTypeAndForWhatIsNone) {
    EXPECT_STREQ(kv::marketingName(Alder), "Summit real-time target machine");
    EXPECT_STREQ(kv::marketingName(Olive), "Ember real-time target machine");
    for (const uint32_t none : {uint32_t{NonKelvaro}, NonKelvaro + 1U, UINT32_MAX}) {
        EXPECT_STREQ(kv::marketingName(static_cast<kv_TargetType>(none)), "NonKelvaro") << none;
    }
}

}  // namespace
