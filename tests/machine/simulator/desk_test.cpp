// What the desk and the machine see of each other.

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "os/unique_fd.h"
#include "support/machine_temporary_folder.h"
#include "support/machine_test.h"

namespace {

namespace fs = std::filesystem;
using kv::test::TemporaryFolder;
using kvsim::Machine;

constexpr int kUnavailable = 77;
constexpr uid_t kNobody = 65534;

/** Runs in a process of its own, which reports what() of an exception, and returns its exit status. */
int inChild(const std::function<int()>& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            ::_exit(action());
        } catch (const kvsim::MachineUnavailable& unavailable) {
            std::fprintf(stderr, "%s\n", unavailable.what());
            ::_exit(kUnavailable);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            ::_exit(1);
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/** What one program leaves behind in each folder of a machine. */
constexpr const char* kLeftBehind[] = {"/usr/kelvaro/kv-host-test", "/home/brvn/logs/kv-host-test",
                                       "/tmp/kelvaro/kv-host-test", "/dev/shm/kv-host-test",
                                       "/dev/kv-host-test",         "/run/kv-host-test",
                                       "/sys/class/kv-host-test",   "/proc/irq/kv-host-test"};

/**
 * The host's mounts, the entries of /usr and /home, and files of a machine that are visible on the host.
 * Mount points of machines are left out: other tests create and remove them.
 */
std::set<std::string> hostState() {
    std::set<std::string> state = {Machine::read("/proc/self/mountinfo")};
    for (const char* folder : {"/usr", "/home"}) {
        for (const auto& entry : fs::directory_iterator(folder)) {
            state.insert(entry.path());
        }
    }
    state.erase("/usr/kelvaro");
    state.erase("/home/brvn");
    for (const char* file : kLeftBehind) {
        if (fs::exists(file)) {
            state.insert(file);
        }
    }
    return state;
}

/** Enters a machine as an ordinary user and does something there. */
int asNobody(const std::function<int()>& action) {
    return inChild([&action] {
        if (::geteuid() == 0 &&
            (::setresgid(kNobody, kNobody, kNobody) != 0 || ::setresuid(kNobody, kNobody, kNobody) != 0)) {
            return kUnavailable;
        }
        ::prctl(PR_SET_DUMPABLE, 1);  // who has changed his user does not own his /proc files otherwise
        return action();
    });
}

int leaveFilesBehind() {
    Machine machine;
    machine.enter();
    for (const char* file : kLeftBehind) {
        Machine::write(file, "left behind");
    }
    return 0;
}

TEST(Desk, IsAsBeforeWhenAMachineIsGone) {
    const std::set<std::string> before = hostState();
    const int status = inChild(leaveFilesBehind);
    if (status == kUnavailable) {
        GTEST_SKIP() << "no machine for this user";
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(hostState(), before);
}

TEST(Desk, KeepsItsFilesOnTheMachine) {
    const TemporaryFolder work;
    work.write("source.txt", "mine");
    const fs::path inSharedMemory = "/dev/shm" / work.path().filename();
    const fs::path sharedObject = inSharedMemory.string() + "-object";
    fs::create_directories(inSharedMemory / "build");
    std::ofstream(sharedObject) << "of the desk";
    const bool isDeskRoot = ::geteuid() == 0;

    const int status = inChild([&] {
        fs::current_path(work.path());
        Machine machine;
        machine.enter();
        EXPECT_EQ(fs::current_path(), work.path());
        EXPECT_EQ(Machine::read("source.txt"), "mine");
        EXPECT_TRUE(fs::exists(fs::read_symlink("/proc/self/exe")));
        EXPECT_TRUE(fs::exists("/etc/passwd"));
        EXPECT_TRUE(fs::exists("/usr/bin/env"));
        EXPECT_TRUE(fs::exists(inSharedMemory / "build")) << "a folder among the shared memory objects";
        EXPECT_FALSE(fs::exists(sharedObject)) << "the machine has its own shared memory";
        Machine::write("result.txt", "written on the machine");
        std::ofstream("/dev/null") << "somewhere";
        EXPECT_TRUE(!isDeskRoot || kv::os::UniqueFd(::posix_openpt(O_RDWR | O_NOCTTY))) << "a terminal";
        return testing::Test::HasFailure() ? 1 : 0;
    });
    fs::remove_all(inSharedMemory);
    fs::remove(sharedObject);
    if (status == kUnavailable) {
        GTEST_SKIP() << "no machine for this user";
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Machine::read(work.path() / "result.txt"), "written on the machine");
}

TEST(Desk, LeavesNobodyStandingInAFolderThatIsCovered) {
    const int status = inChild([] {
        fs::current_path("/sys");
        Machine machine;
        machine.enter();
        return fs::equivalent(".", "/sys") ? 0 : 1;
    });
    if (status == kUnavailable) {
        GTEST_SKIP() << "no machine for this user";
    }
    EXPECT_EQ(status, 0) << "relative paths lead to the desk's /sys";
}

TEST(Desk, GivesAnOrdinaryUserAMachineOnWhichHeIsRoot) {
    const int status = asNobody([] {
        Machine machine;
        machine.cpus(5).addPciFunction({.slot = 2, .vendor = 0x1b5a, .device = 1}).bar(0, 0xA0001100, 0x100);
        machine.enter();
        EXPECT_EQ(::geteuid(), 0U);
        EXPECT_EQ(::sysconf(_SC_NPROCESSORS_CONF), 5);
        machine.pci(0, 2).setBarWord(0, 4, 9);
        EXPECT_EQ(machine.pci(0, 2).barWord(0, 4), 9U);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    if (status == kUnavailable) {
        GTEST_SKIP() << "ordinary users may make no namespaces here";
    }
    EXPECT_EQ(status, 0);
    const std::set<std::string> before = hostState();
    EXPECT_EQ(asNobody(leaveFilesBehind), 0);
    EXPECT_EQ(hostState(), before);
}

}  // namespace
