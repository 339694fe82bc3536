#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "soc/kv_soc_internal.h"
#include "support/log_capture.h"

namespace {

TEST(LoadBitstream, RunsNothingOnMachinesWithoutAFabric) {
    ::setenv("PATH", "/nowhere", 1);  // what is run fails, and says so
    kv::test::LogCapture log;
    for (uint32_t type = Alder; type <= NonKelvaro; ++type) {
        EXPECT_EQ(kv::loadBitstream(static_cast<kv_TargetType>(type), "a.bit"), -1);
        EXPECT_EQ(log.take().back(),
                  kv::test::error(type == Olive ? "SoC: Program to load bitstream failed!"
                                                : "SoC: Target machine does not have a System-on-Chip!"))
            << "type " << type;
    }
}

}  // namespace
