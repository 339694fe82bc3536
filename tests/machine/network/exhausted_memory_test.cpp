#include <cstdlib>
#include <new>
#include <optional>

#include "network_machine.h"

using kv::test::kTranslationFile;
using kvsim::Machine;

namespace {

/** How many allocations still succeed before one fails. */
std::optional<int> allocationsLeft;

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    const bool fails = allocationsLeft == 0;
    if (allocationsLeft) {
        allocationsLeft = fails ? std::nullopt : std::optional(*allocationsLeft - 1);
    }
    if (void* const made = fails ? nullptr : std::malloc(size)) {
        return made;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

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
            const bool happened = !std::exchange(allocationsLeft, std::nullopt).has_value();
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
