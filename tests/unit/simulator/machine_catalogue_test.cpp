#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kvsim/description_reader.h"
#include "support/emulator.h"
#include "support/machine_temporary_folder.h"

namespace {

using kv::test::TemporaryFolder;
using testing::AllOf;
using testing::HasSubstr;

class MachineCatalogue : public testing::Test {
 protected:
    void SetUp() override {
        SKIP_IN_EMULATOR("shows its loader as the running program");
        ::setenv("KVSIM_MACHINES", ("/no/such/folder:" + own_.path().string() + "::").c_str(), 1);
    }
    void TearDown() override { ::unsetenv("KVSIM_MACHINES"); }

    TemporaryFolder own_;
};

TEST_F(MachineCatalogue, PrefersTheUsersMachinesAndKeepsTheOthers) {
    const auto mine = own_.write("bench.yaml", "summary: mine\n");
    const auto replaced = own_.write("ember.yaml", "summary: my ember\n");

    EXPECT_EQ(kvsim::findMachine("bench"), mine);
    EXPECT_EQ(kvsim::findMachine("ember"), replaced);
    ::unsetenv("KVSIM_MACHINES");
    EXPECT_NE(kvsim::findMachine("ember"), replaced);
}

TEST_F(MachineCatalogue, TakesAPathAsItIsAndNamesTheMachinesWhenThereIsNoSuchOne) {
    EXPECT_EQ(kvsim::findMachine("./ember"), "./ember");
    EXPECT_EQ(kvsim::findMachine("ember.yaml"), "ember.yaml");
    try {
        kvsim::findMachine("amber");
        FAIL() << "found";
    } catch (const kvsim::DescriptionError& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr("\"amber\"; there are: "), HasSubstr(" ember")));
    }
}

TEST_F(MachineCatalogue, HoldsOnlySoundMachines) {
    const auto files = kvsim::machineFiles();
    ASSERT_FALSE(files.empty());
    for (const auto& file : files) {
        EXPECT_NO_THROW(kvsim::readDescription(file)) << file;
    }
}

}  // namespace
