#include "serial/kv_target_order.h"

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using kv::serial::doNaturalCompare;
using kv::serial::splitAlphaNum;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(NaturalOrder, CutsNamesIntoRunsOfDigitsAndOthers) {
    EXPECT_THAT(splitAlphaNum("ttyS10"), ElementsAre("ttyS", "10"));
    EXPECT_THAT(splitAlphaNum("a1b22"), ElementsAre("a", "1", "b", "22"));
    EXPECT_THAT(splitAlphaNum("007"), ElementsAre("007"));
    EXPECT_THAT(splitAlphaNum(""), IsEmpty());
}

TEST(NaturalOrder, CountsDigitsAsNumbers) {
    // Each sorts before the next.
    const std::vector<std::string> names = {"",       "2",       "007",      "12",        "ttyA",
                                            "ttyS",   "ttyS0",   "ttyS00a",  "ttyS1",     "ttyS2",
                                            "ttyS10", "ttyS10a", "ttyS10a2", "ttyS10a10", "ttyS2147483647",
                                            "ttyT",   "ttyUSB0", "tty\xE9"};
    for (std::size_t a = 0; a < names.size(); ++a) {
        for (std::size_t b = 0; b < names.size(); ++b) {
            EXPECT_EQ(doNaturalCompare(names[a], names[b]), a < b) << names[a] << " and " << names[b];
        }
    }
    std::vector<std::string> shuffled = names;
    std::ranges::shuffle(shuffled, std::mt19937(3));
    std::ranges::sort(shuffled, doNaturalCompare);
    EXPECT_EQ(shuffled, names);
}

TEST(NaturalOrder, TakesEqualNumbersForEqual) {
    for (const auto& [a, b] : {std::pair("ttyUSB0", "ttyUSB00"), std::pair("007", "7")}) {
        EXPECT_FALSE(doNaturalCompare(a, b)) << a;
        EXPECT_FALSE(doNaturalCompare(b, a)) << a;
    }
    EXPECT_TRUE(doNaturalCompare("x07a", "x7b"));  // what follows decides
}

TEST(NaturalOrder, ThrowsForNumbersThatAreNoInt) {
    EXPECT_THROW(doNaturalCompare("ttyS2147483648", "ttyS1"), std::out_of_range);
    EXPECT_TRUE(doNaturalCompare("a2147483648", "b1"));  // decided before it gets there
}

}  // namespace
