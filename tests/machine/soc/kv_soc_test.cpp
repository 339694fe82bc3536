#include <atomic>
#include <csignal>
#include <cstdlib>

#include "soc_machine.h"
#include "support/machine_temporary_folder.h"

using kv::test::debug;
using kv::test::error;
using kv::test::Record;

namespace {

std::atomic<int> stopSignals = 0;

TEST(BitstreamLoader, IsGivenThePathAsItIsUnlessThatLeavesItsQuotes) {
    // A sudo before the machine's own: it notes what it is to run, and the model is stopped meanwhile.
    const kv::test::TemporaryFolder folder;
    const auto sudo = folder.write(
        "sudo",
        "#!/bin/sh\nprintf '%s|' \"$@\" > \"$0.noted\"\nkill -INT $MODEL\nexit \"$(cat \"$0.status\")\"\n");
    std::filesystem::permissions(sudo, std::filesystem::perms::owner_all);
    ::setenv("PATH", (folder.path().string() + ":" + std::getenv("PATH")).c_str(), 1);

    ::setenv("MODEL", std::to_string(::getpid()).c_str(), 1);
    ::signal(SIGINT, [](int) { ++stopSignals; });

    const struct {
        std::string path;
        const char* status;
        int result;
        std::string noted;
    } cases[] = {{"/opt/my $HOME; \"a\".bit", "0", 0, "kv_load-bitstream|/opt/my $HOME; \"a\".bit|"},
                 {"a.bit", "3", -1, "kv_load-bitstream|a.bit|"},
                 {"a'; touch b '", "0", -1, ""}};
    kv::test::LogCapture log;
    for (const auto& each : cases) {
        const auto noted = folder.write("sudo.noted", "");
        folder.write("sudo.status", each.status);
        EXPECT_EQ(kv_loadOnChipBitstream(each.path.c_str()), each.result);
        EXPECT_EQ(kvsim::Machine::read(noted), each.noted);
        EXPECT_EQ(stopSignals.exchange(0), each.noted.empty() ? 0 : 1);
        std::vector<Record> expected = {debug("SoC: Loading bitstream \"" + each.path + "\"")};
        if (each.result != 0) {
            expected.push_back(error("SoC: Program to load bitstream failed!"));
        }
        EXPECT_EQ(log.take(), expected);
    }
}

}  // namespace
