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
        unsigned cpus;
        const char* list;
    } cases[] = {{"0\n", 0, 4, "0"},        {"0-2,3,5", 0, 6, "0-3,5"},
                 {" 7, 1 \n", 0, 8, "1,7"}, {"254-255", 0, 256, "254-255"},
                 {"all", 0, 4, "0-3"},      {"0,2-N", 0, 4, "0,2-3"},
                 {"\n", 0, 4, ""},          {"3-1", EINVAL, 4, ""},
                 {"1-", EINVAL, 4, ""},     {"-1", EINVAL, 4, ""},
                 {"x", EINVAL, 4, ""},      {"1x", EINVAL, 4, ""},
                 {"0x1", EINVAL, 4, ""},    {"4", ERANGE, 4, ""},
                 {"2-9", ERANGE, 4, ""},    {"0-4294967296", ERANGE, 256, ""}};
    for (const auto& each : cases) {
        CpuSet set;
        ASSERT_EQ(parseList(each.text, each.cpus, set), each.error) << each.text;
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
                 {"10", EOVERFLOW, 4, ""},
                 {"1ffffffff", EOVERFLOW, 64, ""},
                 {"0,00000001", EOVERFLOW, 32, ""},
                 {"0xf", EINVAL, 4, ""},
                 {"1,,1", EINVAL, 96, ""},
                 {"1 1", EINVAL, 64, ""}};
    for (const auto& each : cases) {
        CpuSet set;
        ASSERT_EQ(parseMask(each.text, each.cpus, set), each.error) << each.text;
        if (each.error == 0) {
            EXPECT_EQ(maskText(set, each.cpus), each.mask) << each.text;
        }
    }
}

}  // namespace
