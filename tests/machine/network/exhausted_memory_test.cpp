#include <utility>

#include "network_machine.h"
#include "support/failing_allocations.h"

using kv::test::allocationFailed;
using kv::test::allocationsLeft;
using kv::test::kTranslationFile;
using kvsim::Machine;

namespace {

class ExhaustedMemory : public kv::test::NetworkMachine {};

TEST_F(ExhaustedMemory, FailsACallAndLeavesNothingBehind) {
    addController(0, 0x1533, 9).driver("igb").networkInterface("eth0");
    addPlatformInterface("axi/ff0e0000.ethernet", "end0");
    machine_.addPciDriver("atemsys_pci", {{0x8086, 0x1533}});
    ENTER_MACHINE(machine_);
    int (*const calls[])() = {kv_translateEthernetInterfaces, [] { return kv_configureEthercat(0); },
                              [] { return kv_teardownEthercat(0); }};
    const auto before = openFiles();
    for (const auto& call : calls) {
        int failures = 0;
        for (int n = 0;; ++n) {
            Machine::write(kTranslationFile, "as it was");
            allocationsLeft = n;
            const int result = call();
            allocationsLeft = -1;
            const bool happened = std::exchange(allocationFailed, false);
            failures += result == -1 ? 1 : 0;
            if (call == kv_translateEthernetInterfaces) {
                EXPECT_EQ(Machine::read(kTranslationFile),
                          result == 0 ? "end0:-1:Hostlink;eth0:0:ETH1;" : "as it was");
            }
            if (!happened) {
                EXPECT_EQ(result, 0);
                break;
            }
        }
        EXPECT_GT(failures, 0);
    }
    EXPECT_EQ(openFiles(), before);
}

}  // namespace
