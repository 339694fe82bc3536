#include <kvsim/machine.h>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/target.h>

#include "support/log_capture.h"
#include "support/machine_test.h"

using kv::test::error;
using kv::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kTemperatureFile = "/sys/class/hwmon/hwmon0/temp1_input";
constexpr const char* kSerialNumberFile = "/sys/devices/platform/ember/rttm/system_serial";

class TargetIdentification : public testing::Test {
 protected:
    void SetUp() override { ENTER_MACHINE(machine_); }

    kvsim::Machine machine_;
    LogCapture log_;
};

TEST_F(TargetIdentification, NamesTheSocTarget) {
    EXPECT_EQ(kv_getTargetType(), Olive);
    EXPECT_EQ(static_cast<int>(kv_getTargetType()), 16);
    EXPECT_STREQ(kv_getTargetMarketingName(), "Ember real-time target machine");
}

TEST_F(TargetIdentification, ReadsWholeDegreesTruncatedTowardZero) {
    const struct {
        const char* text;
        int32_t degrees;
    } cases[] = {
        {"45123\n", 45}, {"45999", 45}, {"-500\n", 0},          {"-1500\n", -1}, {"0\n", 0},
        {"warm\n", 0},   {"\n", 0},     {"12000\n99000\n", 12}, {"  7000", 7},   {"00000000000000012000", 0}};
    for (const auto& each : cases) {
        kvsim::Machine::write(kTemperatureFile, each.text);
        EXPECT_EQ(kv_getCpuTemperature(), each.degrees) << "for '" << each.text << "'";
    }
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(TargetIdentification, TellsAMissingTemperatureButNotAnEmptyOne) {
    kvsim::Machine::write(kTemperatureFile, "");
    EXPECT_EQ(kv_getCpuTemperature(), -1);
    EXPECT_THAT(log_.take(), IsEmpty());

    kvsim::Machine::remove(kTemperatureFile);
    EXPECT_EQ(kv_getCpuTemperature(), -1);
    EXPECT_THAT(log_.take(), ElementsAre(error(std::string("Cannot open file: ") + kTemperatureFile)));
}

TEST_F(TargetIdentification, ClassifiesSerialNumbersByTheirFirstCharacter) {
    const struct {
        const char* record;
        int customer;
        int internal;
        int supplier;
    } cases[] = {
        {"12345\n", 12345, -1, -1},
        {"i2001", -1, 2001, -1},
        {"s77\n", -1, -1, 77},
        {"0", 0, -1, -1},
        {"i", -1, 0, -1},
        {"", -1, -1, -1},
        {"-5", -1, -1, -1},
        {"S77", -1, -1, -1},
        {"x\x01\xff", -1, -1, -1},
        {"000000000000123456789", 1234, -1, -1},  // the record ends with the 16th character
        {"s00000000000012999999", -1, -1, 129},
    };
    for (const auto& each : cases) {
        kvsim::Machine::write(kSerialNumberFile, each.record);
        EXPECT_EQ(kv_getSerialNumber(), each.customer) << each.record;
        EXPECT_EQ(kv_getSerialNumberInternal(), each.internal) << each.record;
        EXPECT_EQ(kv_getSerialNumberSupplier(), each.supplier) << each.record;
    }
}

TEST_F(TargetIdentification, HasNoSerialNumberWhereTheFileCannotBeRead) {
    for (const bool missing : {false, true}) {
        if (missing) {
            kvsim::Machine::remove(kSerialNumberFile);
        } else {
            kvsim::Machine::replaceByFolder(kSerialNumberFile);
        }
        EXPECT_EQ(kv_getSerialNumber(), -1);
        EXPECT_EQ(kv_getSerialNumberInternal(), -1);
        EXPECT_EQ(kv_getSerialNumberSupplier(), -1);
    }
    EXPECT_THAT(log_.take(), IsEmpty());
}

}  // namespace
