#include <array>
#include <climits>
#include <limits>
#include <new>
#include <sys/resource.h>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/block.h>

using testing::ElementsAre;

namespace {

constexpr int kUntouched = 77;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

/** A block that nobody has set up yet: every number that the helpers may set is kUntouched. */
class Block : public testing::Test {
 protected:
    Block() {
        block_.stInfo = {&sampleTime_, &offset_};
        block_.sizes = {kUntouched, kUntouched, kUntouched, kUntouched, kUntouched, kUntouched,
                        kUntouched, kUntouched, kUntouched, kUntouched, kUntouched, kUntouched};
        inputs_.fill({kUntouched, kUntouched, {0}});
        outputs_.fill({kUntouched});
        block_.portInfo = {inputs_.data(), outputs_.data()};
    }

    /** Gives the block one more dialog parameter. */
    int give(std::vector<double> rowsColumnsAndValues) {
        parameters_.push_back(std::move(rowsColumnsAndValues));
        pointers_.push_back(parameters_.back().data());
        block_.sfcnParams = {static_cast<int_T>(pointers_.size()), pointers_.data()};
        return block_.sfcnParams.dlgNum - 1;
    }

    int giveNumber(double value) { return give({1, 1, value}); }

    KvBlockDescriptor block_ = {};
    double sampleTime_ = kUntouched;
    double offset_ = kUntouched;
    std::array<KvBlockInputPort, 3> inputs_ = {};
    std::array<KvBlockOutputPort, 3> outputs_ = {};

 private:
    std::vector<std::vector<double>> parameters_;
    std::vector<double*> pointers_;
};

using BlockSetup = Block;
using BlockParameters = Block;

TEST_F(BlockSetup, OffsetsTheSampleTimeOnlyWhenItIsInherited) {
    kvMaskInit_initSampleTimesForRegularBlock(&block_, 0.001);
    EXPECT_EQ(sampleTime_, 0.001);
    EXPECT_EQ(offset_, 0.0);
    kvMaskInit_initSampleTimesForRegularBlock(&block_, -1.0);
    EXPECT_EQ(sampleTime_, -1.0);
    EXPECT_EQ(offset_, 1.0);
    for (const double near : {-0.5, -1.5}) {
        kvMaskInit_initSampleTimesForRegularBlock(&block_, near);
        EXPECT_EQ(offset_, 0.0) << near;
    }
    kvMaskInit_initSampleTimesForSetupBlock(&block_);
    EXPECT_EQ(sampleTime_, -1.0);
    EXPECT_EQ(offset_, 1.0);
}

TEST_F(BlockSetup, SetsThePortsThatAreCountedAndNoOthers) {
    kvMaskInit_setInputPorts(&block_, 2, 8);
    kvMaskInit_setOutputPorts(&block_, 1, 4);
    EXPECT_EQ(block_.sizes.in, 2);
    EXPECT_EQ(block_.sizes.out, 1);
    for (const int k : {0, 1}) {
        EXPECT_EQ(inputs_[k].width, 8);
        EXPECT_EQ(inputs_[k].directFeedThrough, 1);
        EXPECT_EQ(inputs_[k].attributes.contiguity, 1U);
    }
    EXPECT_EQ(inputs_[2].width, kUntouched);
    EXPECT_EQ(inputs_[2].directFeedThrough, kUntouched);
    EXPECT_EQ(inputs_[2].attributes.contiguity, 0U);
    EXPECT_EQ(outputs_[0].width, 4);
    EXPECT_EQ(outputs_[1].width, kUntouched);

    for (const unsigned int none : {0U, 0x80000000U}) {
        kvMaskInit_setInputPorts(&block_, none, 5);
        kvMaskInit_setOutputPorts(&block_, none, 5);
        EXPECT_EQ(block_.sizes.in, static_cast<int>(none));
        EXPECT_EQ(block_.sizes.out, static_cast<int>(none));
        EXPECT_EQ(inputs_[0].width, 8);
        EXPECT_EQ(outputs_[0].width, 4);
    }
}

TEST_F(BlockSetup, SizesASetupBlockWithoutPortsAndLeavesARegularBlocksPortsAlone) {
    KvMaskInit_SetupSettingsArgs args = {1, 2, 3, 4};
    giveNumber(0);
    ASSERT_EQ(kvMaskInit_initSizesForRegularBlock(&block_, &args), 0);
    EXPECT_EQ(block_.sizes.numSFcnParams, 1);
    EXPECT_EQ(block_.sizes.numContStates, 0);
    EXPECT_EQ(block_.sizes.numDiscStates, 0);
    EXPECT_EQ(block_.sizes.numSampleTimes, 1);
    EXPECT_EQ(block_.sizes.numIWork, 2);
    EXPECT_EQ(block_.sizes.numRWork, 3);
    EXPECT_EQ(block_.sizes.numPWork, 4);
    EXPECT_EQ(block_.sizes.numNonsampledZCs, 0);
    EXPECT_EQ(block_.sizes.numModes, 0);
    EXPECT_EQ(block_.sizes.options, 2U);
    EXPECT_EQ(block_.sizes.in, kUntouched);
    EXPECT_EQ(block_.sizes.out, kUntouched);

    ASSERT_EQ(kvMaskInit_initSizesForSetupBlock(&block_, &args), 0);
    EXPECT_EQ(block_.sizes.options, 10U);
    EXPECT_EQ(block_.sizes.in, 0);
    EXPECT_EQ(block_.sizes.out, 0);
}

TEST_F(BlockSetup, StopsAtAWrongNumberOfParametersOnceItHasSaidHowMany) {
    KvMaskInit_SetupSettingsArgs args = {2, 2, 3, 4};
    giveNumber(0);
    for (const auto initSizes : {kvMaskInit_initSizesForSetupBlock, kvMaskInit_initSizesForRegularBlock}) {
        block_.sizes.numSFcnParams = kUntouched;
        EXPECT_EQ(initSizes(&block_, &args), -1);
        EXPECT_EQ(block_.sizes.numSFcnParams, 2);
        EXPECT_EQ(block_.sizes.numContStates, kUntouched);
        EXPECT_EQ(block_.sizes.numSampleTimes, kUntouched);
        EXPECT_EQ(block_.sizes.numIWork, kUntouched);
        EXPECT_EQ(block_.sizes.in, kUntouched);
        EXPECT_EQ(block_.sizes.options, static_cast<unsigned int>(kUntouched));
    }
}

TEST_F(BlockParameters, AreTruncatedAndSaturate) {
    const struct {
        double value;
        int asInt;
        unsigned char asChar;
    } rows[] = {
        {65.9, 65, 65},
        {-2.7, -2, 0},
        {0.7, 0, 0},
        {-0.9, 0, 0},
        {257, 257, 1},
        {2147483647.5, INT_MAX, 0xFF},
        {2147483649.0, INT_MAX, 1},
        {4294967295.5, INT_MAX, 0xFF},
        {1e20, INT_MAX, 0xFF},
        {kInfinity, INT_MAX, 0xFF},
        {-2147483649.0, INT_MIN, 0},
        {-kInfinity, INT_MIN, 0},
        {kNaN, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const int i = giveNumber(row.value);
        EXPECT_EQ(kvParam_getInt(&block_, i), row.asInt);
        EXPECT_EQ(kvParam_getBool(&block_, i), row.asInt != 0);
        EXPECT_EQ(static_cast<unsigned char>(kvParam_getChar(&block_, i)), row.asChar);
    }
    EXPECT_EQ(kvParam_getDouble(&block_, 1), -2.7);
}

/** The elements of a vector, which is deleted. */
template <typename Vector, typename Element = std::remove_pointer_t<decltype(Vector::val)>>
std::vector<Element> take(Vector* vector, void (*deleteVector)(Vector*)) {
    const std::vector<Element> elements(vector->val, vector->val + vector->len);
    deleteVector(vector);
    return elements;
}

TEST_F(BlockParameters, BecomeVectorsInStoredOrder) {
    const int i = give({2, 3, 65.9, -2.7, 0.7, 1e20, kNaN, 66});
    EXPECT_THAT(take(kvParam_newIntVec(&block_, i), kvParam_deleteIntVec),
                ElementsAre(65, -2, 0, INT_MAX, 0, 66));
    EXPECT_THAT(take(kvParam_newBoolVec(&block_, i), kvParam_deleteBoolVec),
                ElementsAre(true, true, false, true, false, true));
    EXPECT_THAT(take(kvParam_newDoubleVec(&block_, i), kvParam_deleteDoubleVec),
                ElementsAre(65.9, -2.7, 0.7, 1e20, testing::IsNan(), 66.0));
    EXPECT_THAT(take(kvParam_newCharVec(&block_, i), kvParam_deleteCharVec),
                ElementsAre('A', '\0', '\0', '\xFF', '\0', 'B'));
    kvParam_deleteIntVec(nullptr);
    kvParam_deleteIntVec(new KvParam_IntVec{nullptr, 0});
}

TEST_F(BlockParameters, WithoutElementsBecomeEmptyArrays) {
    const struct {
        double rows;
        double columns;
        int length;
    } rows[] = {
        {0, 3, 0},     {0.9, 3, 0}, {-2, 3, 0}, {kNaN, 3, 0}, {65536, 65536, 0}, {65536, 32768, INT_MIN},
        {1e20, 1, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rows);
        KvParam_DoubleVec* vector = kvParam_newDoubleVec(&block_, give({row.rows, row.columns}));
        EXPECT_EQ(vector->len, row.length);
        EXPECT_NE(vector->val, nullptr);
        kvParam_deleteDoubleVec(vector);
    }
}

TEST_F(BlockParameters, TooManyForTheMemoryAreRefused) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators end the process where there is no memory";
#endif
    const int i = give({1, INT_MAX});
    rlimit fourGibibytes = {4UL << 30, 4UL << 30};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &fourGibibytes), 0);
    ASSERT_EQ(getrlimit(RLIMIT_AS, &fourGibibytes), 0);
    if (fourGibibytes.rlim_cur != 4UL << 30) {
        GTEST_SKIP() << "RLIMIT_AS has no effect here, as under a user-mode emulator";
    }
    EXPECT_THROW(kvParam_newDoubleVec(&block_, i), std::bad_array_new_length);
}

}  // namespace
