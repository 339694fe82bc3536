#include <csignal>
#include <sys/resource.h>

#include "uio_machine.h"

using kv::test::Context;
using kv::test::info;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kDrivers = "/sys/bus/pci/drivers/";
const std::string kNewId = kDrivers + "uio_kelvaro/new_id";
const std::string kBind = kDrivers + "uio_kelvaro/bind";
const std::string kUnbind = kDrivers + "kelvaro_legacy/unbind";

/** While it lives, files take no bytes from this process. */
class RefusedWrites {
 public:
    RefusedWrites() {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit none{0, former_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &none);
    }
    ~RefusedWrites() { ::setrlimit(RLIMIT_FSIZE, &former_); }
    RefusedWrites(const RefusedWrites&) = delete;
    RefusedWrites& operator=(const RefusedWrites&) = delete;

 private:
    rlimit former_{};
};

class UioContext : public kv::test::UioMachine {
 protected:
    [[nodiscard]] std::string ofBoard(Slot slot, const char* file) const { return board(slot).path() + file; }

    /** Attaches in vain; then so many descriptors are open. */
    void expectNotAttached(const Context& context, int error, const std::string& text, int descriptors = 0) {
        EXPECT_EQ(kv_uio_interruptAttach(context.get()), -error);
        EXPECT_EQ(pKvErrorStr, text);
        EXPECT_EQ(openFiles(), before_ + descriptors) << text;
    }
    void expectNotBound(const Context& context, int error, const std::string& reason) {
        expectNotAttached(context, error, "INT MAP -> Failed to bind UIO device: " + reason + "\n");
    }
};

TEST_F(UioContext, BeginsWithTheBoardAndNothingOpen) {
    const Context context = contextOf(kFree);
    EXPECT_EQ(context->pciInfo.slot, kFree);
    EXPECT_EQ(context->uioIndex, -1);
    EXPECT_EQ(context->uiofd, -1);
    EXPECT_EQ(context->configfd, -1);
    EXPECT_EQ(context->irq_cpu_assigned, -1);
    EXPECT_EQ(context->priority, 60);
    EXPECT_EQ(context->defaultPriority, 50);
    for (const int cpu : {2, 3, 2}) {
        EXPECT_EQ(kv_uio_setIrqProps(context.get()), 0);
        EXPECT_EQ(context->irq_cpu_assigned, cpu);
    }
    context->isModelTrigger = true;
    EXPECT_EQ(kv_uio_setIrqProps(context.get()), 0);
    EXPECT_EQ(context->irq_cpu_assigned, 1);

    EXPECT_EQ(kv_uio_createInterruptContext(nullptr, &context->pciInfo), -1);
    EXPECT_STREQ(pKvErrorStr, "Invalid nullptr passed for contextOut");
    EXPECT_EQ(kv_uio_interruptAttach(nullptr), -1);
    EXPECT_STREQ(pKvErrorStr, "Invalid nullptr passed for context");
    kv_uio_interruptDetach(nullptr);
}

TEST_F(UioContext, TakesBoardsThatNoDriverOrAnotherOneHad) {
    const auto driverOf = [this](Slot slot) {
        return std::filesystem::read_symlink(ofBoard(slot, "/driver")).filename();
    };
    EXPECT_EQ(driverOf(kHeld), "kelvaro_legacy");
    const Context first = attached(kFree);
    const Context second = attached(kHeld);  // the driver knows the identity by now
    EXPECT_EQ(first->uioIndex, 0);
    EXPECT_EQ(driverOf(kFree), "uio_kelvaro");
    EXPECT_EQ(driverOf(kHeld), "uio_kelvaro");
    const auto uioFile = kv::utils::formatString("/dev/uio%d", second->uioIndex);
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(uioFile).permissions()), 0666U);

    Machine::remove(kNewId);
    EXPECT_EQ(attached(kHeld)->uioIndex, second->uioIndex) << "a board that is bound is left as it is";
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(UioContext, KeepsWhatAFailedAttachmentOpenedUntilTheNextOneOrTheEnd) {
    const Context context = attached(kFree);
    Machine::remove(ofBoard(kFree, "/config"));
    expectNotAttached(context, ENOENT, "Failed to open PCI configuration file: No such file or directory\n",
                      1);
    Machine::write(ofBoard(kFree, "/config"), "short");
    expectNotAttached(context, EIO, "Failed to read upper command byte: Input/output error\n", 2);
    makeUnopenable("/dev/uio0");
    expectNotAttached(context, ENXIO,
                      "INT MAP -> Failed to open UIO device /dev/uio0: No such device or address\n");
    Machine::remove("/dev/uio0");
    expectNotBound(context, ENOENT, "No such file or directory");
    EXPECT_EQ(context->uioIndex, -1);

    Machine::write("/dev/uio0", "");
    Machine::write(ofBoard(kFree, "/config"), "12345\x03");
    RefusedWrites refused;
    expectNotAttached(context, EFBIG, "Failed to write upper command byte: File too large\n", 2);
    EXPECT_EQ(context->command_high, 0x03) << "as it was read";
    EXPECT_EQ(kv_uio_enableInterrupt(context.get()), -EFBIG);
    EXPECT_STREQ(pKvErrorStr, "Interrupt Enable: Failed to write config file: Unknown error -1\n");
    EXPECT_EQ(kv_uio_interruptEnableFix(context.get()), -EFBIG);
    EXPECT_STREQ(pKvErrorStr, "Failed to enable Kelvaro interrupt fix: File too large\n");
    EXPECT_TRUE(context->kv_int_fix.requested_by_user);
}

TEST_F(UioContext, ReportsTheStepAtWhichBindingFails) {
    const Context refused = contextOf(kWithoutLine);
    expectNotBound(refused, ENOENT, "No such file or directory");
    for (const char* noDevice : {"/uio/power", "/uio/xuio1", "/uio/uio", "/uio/uio-2"}) {
        Machine::write(ofBoard(kWithoutLine, noDevice), "");
    }
    expectNotBound(refused, ENODEV, "No such device");
    EXPECT_THAT(log_.take(), IsEmpty()) << "what the kernel makes of it shows in the files alone";

    const Context held = contextOf(kHeld);
    Machine::remove(kNewId);
    Machine::write(kNewId, "");
    Machine::replaceByFolder(kUnbind);
    expectNotBound(held, EISDIR, "Is a directory");
    EXPECT_EQ(Machine::read(kNewId), "1b5a  1f0") << "blank-padded to nine characters";
    EXPECT_EQ(log_.take().back(), info("bindDeviceToUio: unbind existing driver failed."));

    Machine::remove(kUnbind);
    Machine::remove(kBind);
    expectNotBound(held, ENOENT, "No such file or directory");
    EXPECT_THAT(log_.take(), ElementsAre(info("Could not open bind file " + kBind + " for writing."),
                                         info("bindDeviceToUio: bind to uio_kelvaro failed.")));

    makeFull(kNewId);
    expectNotBound(held, ENOSPC, "No space left on device");
    Machine::remove(kNewId);
    expectNotBound(held, ENOENT, "No such file or directory");
    EXPECT_THAT(log_.take(),
                ElementsAre(info("bindDeviceToUio: write(new_id) failed: No space left on device (bytes=-1)"),
                            info("bindDeviceToUio: open(new_id) failed: No such file or directory")));
}

}  // namespace
