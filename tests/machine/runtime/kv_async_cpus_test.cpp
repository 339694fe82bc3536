#include <cerrno>
#include <kvsim/machine.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/threads.h>

#include "support/log_capture.h"
#include "support/machine_test.h"

using kv::test::debug;
using kv::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(AsyncCpus, AreHandedOutInTurnFromTwoUpward) {
    kvsim::Machine machine;
    machine.cpus(4);
    ENTER_MACHINE(machine);
    LogCapture log;
    EXPECT_EQ(kv_pickNextAsyncCpu(), 2);
    EXPECT_EQ(kv_pickNextAsyncCpu(), 3);
    EXPECT_EQ(kv_pickNextAsyncCpu(), 2);
    EXPECT_THAT(log.take(),
                ElementsAre(debug("Picked CPU 2 for async IRQ"), debug("Picked CPU 3 for async IRQ"),
                            debug("Picked CPU 2 for async IRQ")));
}

TEST(AsyncCpus, AreNotGivenAwayOnASmallMachine) {
    kvsim::Machine machine;
    machine.cpus(2);
    ENTER_MACHINE(machine);
    LogCapture log;
    EXPECT_EQ(kv_pickNextAsyncCpu(), -1);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(ExclusiveCpu, CannotBeHadOnAMachineWithOne) {
    kvsim::Machine machine;
    machine.cpus(1);
    ENTER_MACHINE(machine);
    errno = E2BIG;
    EXPECT_EQ(kv_pinThreadExclusiveCpu(0), ENOSYS);
    EXPECT_EQ(errno, E2BIG);
}

}  // namespace
