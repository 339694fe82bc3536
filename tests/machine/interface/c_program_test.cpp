#include <kvsim/description_reader.h>

#include <gtest/gtest.h>

#include "support/machine_test.h"
#include "support/shell.h"

namespace {

TEST(CProgram, CallsEveryFunctionOfTheLibrary) {
    kvsim::Machine machine(kvsim::readDescription(kvsim::findMachine("ember")));
    ENTER_MACHINE(machine);
    const auto [status, output] = kv::test::shell(C_PROGRAM);
    EXPECT_EQ(status, 0) << output;
}

}  // namespace
