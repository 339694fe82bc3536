#include "serial/kv_serial_tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serial/kv_serial_internal.h"
#include "support/log_capture.h"

using namespace kv::serial;

namespace {

TEST(SerialTables, HaveNoPortOnForeignMachines) {
    kv::test::LogCapture log;
    EXPECT_EQ(openPort(NonKelvaro, 1, 0), -1);
    EXPECT_THAT(log.take(), testing::ElementsAre(kv::test::error("[port 1] not found device ")));
}

TEST(SerialTables, TakeTheSpeedCodesAboveB38400Only) {
    for (speed_t code = 0; code <= 0x1020; ++code) {
        EXPECT_EQ(isExtendedBaudrate(code), code >= 0x1001 && code <= 0x100F) << code;
    }
    EXPECT_FALSE(isExtendedBaudrate(115200));
}

TEST(SerialTables, MakeFlagsOfEachSetting) {
    constexpr uint32_t kBase = 0x80 | 0x30 | 0x800;  // CREAD, CS8, CLOCAL
    const struct {
        int dataBits;
        uint32_t parity;
        int stopBits;
        int ctsMode;
        uint32_t control;
        uint32_t input;
    } cases[] = {
        {4, None, 1, 0, kBase, 0},
        {1, None, 1, 0, kBase & ~0x30U, 0},
        {2, None, 0, 0, (kBase & ~0x30U) | 0x10, 0},
        {3, None, 3, 0, (kBase & ~0x30U) | 0x20, 0},
        {0, None, 2, 0, kBase | 0x40, 0},
        {5, None, -1, 0, kBase, 0},
        {4, None, 1, 1, (kBase & ~0x800U) | 0x80000000, 0},
        {4, None, 1, -1, (kBase & ~0x800U) | 0x80000000, 0},
        {4, Even, 1, 0, kBase | 0x100, 0x10},
        {4, Odd, 1, 0, kBase | 0x300, 0x10},
        {4, Mark, 1, 0, kBase | 0x40000300, 0x10},
        {4, Space, 1, 0, kBase | 0x40000100, 0x10},
    };
    for (const auto& each : cases) {
        const auto flags =
            lineFlags(each.dataBits, static_cast<parity_bits>(each.parity), each.stopBits, each.ctsMode);
        ASSERT_TRUE(flags);
        EXPECT_EQ(flags->control, each.control) << "parity " << each.parity << ", data " << each.dataBits;
        EXPECT_EQ(flags->input, each.input);
        EXPECT_EQ(flags->output, 0x4U);
        EXPECT_EQ(flags->local, 0xa30U);
    }
    for (const uint32_t none : {0U, 6U, UINT32_MAX}) {
        EXPECT_FALSE(lineFlags(4, static_cast<parity_bits>(none), 1, 0)) << none;
    }
}

}  // namespace
