#include <cstdint>

#include <gtest/gtest.h>

#include "target/kv_target_internal.h"

namespace {

TEST(MarketingName, IsSharedByTheBoardsThatWereSoldUnderOneName) {
    const struct {
        kv_TargetType type;
        const char* name;
    } cases[] = {
        {Alder, "Summit real-time target machine"},
        {Birch, "Summit Prime real-time target machine"},
        {Quartz, "Summit Prime+ real-time target machine"},
        {Keystone, "Keystone real-time target machine"},
        {Keystone_TopLayer, "Keystone real-time target machine"},
        {RamblerV2, "Rambler real-time target machine"},
        {Fir, "Summit Lanes+ real-time target machine"},
        {Cubit, "Cubit real-time target machine"},
        {Hazel, "Summit real-time target machine"},
        {RamblerRugged, "Rambler Rugged real-time target machine"},
        {Scholar2, "Scholar real-time target machine"},
        {Kapok, "Summit real-time target machine"},
        {RamblerV3, "Rambler real-time target machine (R3)"},
        {Larch, "Summit real-time target machine (S3)"},
        {Maple, "Summit Prime real-time target machine"},
        {Nutmeg, "Cubit real-time target machine"},
        {Olive, "Ember real-time target machine"},
        {NonKelvaro, "NonKelvaro"},
        {static_cast<kv_TargetType>(18), "NonKelvaro"},
        {static_cast<kv_TargetType>(UINT32_MAX), "NonKelvaro"},
    };
    for (const auto& each : cases) {
        EXPECT_STREQ(kv::marketingName(each.type), each.name) << "type " << each.type;
    }
}

}  // namespace
