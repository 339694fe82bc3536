#pragma once

#include <memory>
#include <unistd.h>

#include "soc_machine.h"

namespace kv::test {

using Context = std::unique_ptr<kv_InterruptContext, decltype(&kv_uio_interruptDetach)>;

/** A machine with boards that interrupt: one that no driver holds, one that another driver holds. */
class UioMachine : public SocMachine {
 protected:
    enum Slot : uint8_t { kFree = 1, kHeld = 2, kWithoutLine = 3, kAnalog = 4 };

    void SetUp() override {
        ::alarm(20);
        machine_.cpus(4).addPciDriver("uio_kelvaro");
        machine_.addPciFunction({.slot = kFree, .vendor = 0x1b5a, .device = 0x01f0, .irq = 40});
        machine_.addPciFunction({.slot = kHeld, .vendor = 0x1b5a, .device = 0x01f0, .irq = 41})
            .driver("kelvaro_legacy");
        machine_.addPciFunction({.slot = kWithoutLine, .vendor = 0x1b5a, .device = 0x01f0});
        machine_.addPciFunction({.slot = kAnalog, .vendor = 0x1b5a, .device = 0x01f0, .irq = 42})
            .bar(0, 0xA0000000, 0x1000)
            .board("analog-io");
        ENTER_MACHINE(machine_);
        before_ = openFiles();
    }
    void TearDown() override { EXPECT_EQ(IsSkipped() ? 0 : openFiles(), before_); }

    [[nodiscard]] kvsim::PciFunctionFiles board(Slot slot) const { return machine_.pci(0, slot); }
    [[nodiscard]] unsigned commandHigh(Slot slot) const { return board(slot).config8(5); }

    static Context contextOf(Slot slot) {
        constexpr auto kAny = KV_PCI_ANY_SUBSYSTEM;
        kv_PCIDevice record{};
        EXPECT_EQ(kvPCI_getDeviceAtSlot(0x1b5a, 0x01f0, kAny, kAny, 0, slot, &record), 0);
        kv_InterruptContext* context = nullptr;
        EXPECT_EQ(kv_uio_createInterruptContext(&context, &record), 0);
        return {context, kv_uio_interruptDetach};
    }
    static Context attached(Slot slot) {
        Context context = contextOf(slot);
        EXPECT_EQ(kv_uio_interruptAttach(context.get()), 0) << pKvErrorStr;
        return context;
    }

    long before_ = 0;
};

}  // namespace kv::test
