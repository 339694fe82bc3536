#include "active/cpu_set.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace {

using kvsim::CpuSet;
using kvsim::listText;
using kvsim::maskText;
using kvsim::parseList;
using kvsim::parseMask;

TEST(CpuSet, ReadsAndShowsListsAsTheKernelDoes) {
    const struct {
        const char* text;
        int error;
        const char* list;
    } cases[] = {{"0\n", 0, "0"},
                 {"0-2,3,5", 0, "0-3,5"},
                 {" 7, 1 \n", 0, "1,7"},
                 {"254-255", 0, "254-255"},
                 {"\n", 0, ""},
                 {"3-1", EINVAL, ""},
                 {"1-", EINVAL, ""},
                 {"-1", EINVAL, ""},
                 {"x", EINVAL, ""},
                 {"1x", EINVAL, ""},
                 {"0x1", EINVAL, ""},
                 {"256", ERANGE, ""},
                 {"0-4294967296", ERANGE, ""}};
    for (const auto& each : cases) {
        CpuSet set;
        ASSERT_EQ(parseList(each.text, set), each.error) << each.text;
        if (each.error == 0) {
            EXPECT_EQ(listText(set), each.list) << each.text;
        }
    }
}

TEST(CpuSet, ReadsAndShowsMasksAsTheKernelDoes) {
    const struct {
        const char* text;
        int error;
        unsigned cpus;
        const char* mask;
    } cases[] = {{"f\n", 0, 4, "f"},
                 {"0000000a", 0, 7, "0a"},
                 {"1,00000000", 0, 40, "01,00000000"},
                 {"ffffffff", 0, 32, "ffffffff"},
                 {"3", 0, 33, "0,00000003"},
                 {"1ffffffff", EOVERFLOW, 64, ""},
                 {"1,1,1,1,1,1,1,1,1", EOVERFLOW, 256, ""},
                 {"0xf", EINVAL, 4, ""},
                 {"1,,1", EINVAL, 64, ""},
                 {"1 1", EINVAL, 64, ""}};
    for (const auto& each : cases) {
        CpuSet set;
        ASSERT_EQ(parseMask(each.text, set), each.error) << each.text;
        if (each.error == 0) {
            EXPECT_EQ(maskText(set, each.cpus), each.mask) << each.text;
        }
    }
}

}  // namespace
