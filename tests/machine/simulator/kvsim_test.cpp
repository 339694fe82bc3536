// The tool as its users call it.

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_temporary_folder.h"
#include "support/shell.h"

namespace {

using kv::test::Outcome;
using kv::test::shell;
using kv::test::TemporaryFolder;
using testing::HasSubstr;
using testing::MatchesRegex;

const std::string kKvsim = KVSIM_PROGRAM;

class Kvsim : public testing::Test {
 protected:
    void SetUp() override {
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            std::signal(signal, SIG_DFL);  // commands inherit that a background shell has them ignored
        }
        const Outcome first = shell(kKvsim + " run ember true");
        if (first.status == 126) {
            GTEST_SKIP() << first.output;
        }
    }
};

TEST_F(Kvsim, KeepsTheStateOfAMachineThatStaysPowered) {
    const TemporaryFolder folder;
    const std::string powered = kKvsim + " run --state " + folder.path().string() + " ember -- ";
    EXPECT_EQ(shell(powered + "sh -c 'for f in /tmp/kelvaro/tag /usr/kelvaro/sysinfo/kelvaro_version.txt "
                              "/home/brvn/logs/log /dev/shm/object; do echo kept > $f; done'")
                  .output,
              "");
    const std::string show =
        "sh -c 'cd /; cat tmp/kelvaro/tag usr/kelvaro/sysinfo/kelvaro_version.txt home/brvn/logs/log "
        "dev/shm/object; "
        "ls /sys/class/hwmon'";
    EXPECT_EQ(shell(powered + show).output, "kept\nkept\nkept\nkept\nhwmon0\n");
    EXPECT_EQ(shell(kKvsim + " run --state=" + folder.path().string() + " ember " + show).output,
              "kept\nkept\nkept\nkept\nhwmon0\n");
    EXPECT_EQ(shell(kKvsim + " run ember -- test -e /tmp/kelvaro/tag").status, 1)
        << "without it, a fresh boot";

    const Outcome inUse = shell(powered + kKvsim + " run --state " + folder.path().string() + " ember true");
    EXPECT_EQ(inUse.status, 126);
    EXPECT_THAT(inUse.output, MatchesRegex("kvsim: the state folder " + folder.path().string() +
                                           " is in use by another machine, process [0-9]+\n"));

    const Outcome impossible = shell(kKvsim + " run --state /dev/null/state ember -- true");
    EXPECT_EQ(impossible.status, 126);
    EXPECT_EQ(impossible.output,
              "kvsim: the state folder /dev/null/state cannot be created: Not a directory\n");
}

TEST_F(Kvsim, EndsAsItsCommandEnds) {
    EXPECT_EQ(shell(kKvsim + " run ember -- sh -c 'exit 7'").status, 7);
    EXPECT_EQ(shell(kKvsim + " run ember -- sh -c 'kill -TERM $$'").status, 128 + SIGTERM);

    const TemporaryFolder closed;
    std::filesystem::permissions(closed.path(), std::filesystem::perms::none);
    const std::string path = "PATH=" + closed.path().string() + ":$PATH ";
    const Outcome missing = shell(path + kKvsim + " run ember -- no-such-command");
    EXPECT_EQ(missing.status, 127);
    EXPECT_EQ(missing.output, "kvsim: no-such-command: No such file or directory\n");
    const Outcome noProgram = shell(kKvsim + " run ember -- /etc/passwd");
    EXPECT_EQ(noProgram.status, 126);
    EXPECT_EQ(noProgram.output, "kvsim: /etc/passwd: Permission denied\n");
}

TEST_F(Kvsim, HandsTheCommandItsArgumentsAndInput) {
    EXPECT_EQ(shell(kKvsim + " run ember printf '%s.' -- --help 'a b'").output, "--.--help.a b.");
    EXPECT_EQ(shell("echo through | " + kKvsim + " run ember cat").output, "through\n");
}

TEST_F(Kvsim, RunsTheCommandOnTheMachine) {
    const TemporaryFolder folder;
    folder.write("tiny.yaml", "summary: tiny\ncpus: 3\nserial-number: s77\n");
    const Outcome outcome =
        shell("cd " + folder.path().string() + "; " + kKvsim +
              " run tiny.yaml -- sh -c 'getconf _NPROCESSORS_CONF; cat "
              "/sys/devices/platform/ember/rttm/system_serial; pwd; echo $KVSIM_MACHINE; uname "
              "-n'");
    EXPECT_EQ(outcome.output, "3\ns77\n" + folder.path().string() + "\ntiny\ntiny\n");
}

TEST_F(Kvsim, NamesWhatIsLostWithTheMachine) {
    const TemporaryFolder folder;
    const std::string onHost =
        folder.path().string() + "-beside";  // directly in the folder of temporary files
    const std::string lost = "kvsim: lost with the machine ('kvsim run --keep DIR' copies it to the host):\n";
    struct Case {
        const char* machine;
        const char* script;
        std::string output;
    } const cases[] = {
        {"bare", "echo 1 >/dev/shm/object; echo 1 >/home/brvn/logs/log; echo 1 >/tmp/kelvaro/tag", ""},
        {"blaze",
         "echo create buffer 4096 >/dev/u-dma-buf-mgr; systemctl start x; echo gone >/run/x; rm /run/x", ""},
        {"bare", "echo 1 >$BESIDE", ""},
        {"bare", "printf 123 >/run/result; exit 7", lost + "kvsim:   /run/result (3 bytes)\n"},
        {"bare", "printf 123 >/sys/x; kill -9 $$", lost + "kvsim:   /sys/x (3 bytes)\n"},
        {"bare", "printf 1 >'/dev/a\n\\b'; ln -s x /proc/irq/link; mkdir -p /dev/shm/d/e; mkfifo /run/fifo",
         lost + "kvsim:   /dev/a\\012\\134b (1 byte)\nkvsim:   /dev/shm/d/ (1 entry)\n"
                "kvsim:   /proc/irq/link (a symbolic link)\nkvsim:   /run/fifo (a FIFO)\n"},
        {"bare", "cd /run; mkdir 0 1 2 3 4 5 6 7 8 9 A B; rmdir 0 1 2 3 4 5 6 7 8",
         lost + "kvsim:   /run/9/ (0 entries)\nkvsim:   /run/A/ (0 entries)\nkvsim:   /run/B/ (0 entries)\n"},
    };
    for (const Case& each : cases) {
        std::ofstream(folder.path() / "script") << each.script;
        EXPECT_EQ(shell("BESIDE=" + onHost + " " + kKvsim + " run " + each.machine + " sh " +
                        (folder.path() / "script").string())
                      .output,
                  each.output)
            << each.script;
    }
    EXPECT_TRUE(std::filesystem::remove(onHost));
    EXPECT_THAT(shell(kKvsim + " run bare sh -c 'cd /run; mkdir 0 1 2 3 4 5 6 7 8 9 A B'").output,
                HasSubstr("/run/9/ (0 entries)\nkvsim:   and 2 more\n"));
    EXPECT_THAT(shell(kKvsim + " run bare sh -c 'sleep 1 >/dev/null 2>&1 &'").output,
                MatchesRegex("kvsim: still on the machine, whose folders end with the last process:\n"
                             "kvsim:   process [0-9]+: sleep 1\n"));
}

TEST_F(Kvsim, CopiesWhatWouldBeLost) {
    const TemporaryFolder folder;
    const std::filesystem::path kept = folder.path() / "new" / "kept";
    const std::string run = kKvsim + " run --keep " + kept.string() + " bare sh -c '";
    const Outcome copied = shell(run +
                                 "cd /run; echo secret >f; chmod 0 f; mkdir -p d/e; echo deep >d/e/f; ln -s "
                                 "/etc/passwd link; echo model >/home/brvn/logs/log'");
    EXPECT_EQ(copied.status, 0);
    EXPECT_EQ(copied.output, "kvsim: copied to " + kept.string() +
                                 ":\nkvsim:   /home/brvn/logs/log (6 bytes)\nkvsim:   /run/d/ (2 entries)\n"
                                 "kvsim:   /run/f (7 bytes)\nkvsim:   /run/link (a symbolic link)\n");
    EXPECT_EQ(std::filesystem::file_size(kept / "run/f"), 7U);
    EXPECT_EQ(
        shell("cat " + (kept / "run/d/e/f").string() + " " + (kept / "home/brvn/logs/log").string()).output,
        "deep\nmodel\n");
    EXPECT_EQ(std::filesystem::read_symlink(kept / "run/link"), "/etc/passwd");

    // A link that was copied is not followed by the next copy, a folder is not replaced by a file, and no
    // part of a file is left.
    const Outcome refused =
        shell("trap '' XFSZ; ulimit -S -f 10; " + run +
              "ulimit -S -f unlimited; cd /run; mkdir link; echo 1 >link/f; echo 1 >d; echo 1 >e; "
              "head -c 10000 /dev/zero >f'");
    const std::string to = " to " + kept.string() + ": ";
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "kvsim: cannot copy /run/d" + to + "Is a directory\nkvsim: cannot copy /run/f" +
                                  to + "File too large\nkvsim: cannot copy /run/link" + to +
                                  "Not a directory\nkvsim: copied to " + kept.string() +
                                  ":\nkvsim:   /run/e (2 bytes)\n");
    EXPECT_FALSE(std::filesystem::exists(kept / "run/f"));
    EXPECT_EQ(shell(run + "exit 5'").status, 5);
    const std::string dangling = folder.path() / "dangling";
    std::filesystem::create_symlink("/nowhere", dangling);
    const Outcome impossible = shell(kKvsim + " run --keep " + dangling + " bare true");
    EXPECT_EQ(impossible.status, 126);
    EXPECT_EQ(impossible.output, "kvsim: cannot copy to " + dangling + ": File exists\n");
}

TEST(KvsimUse, IsRefusedWithAReasonAndStatusTwo) {
    const TemporaryFolder folder;
    const std::string bad = folder.write("bad.yaml", "summary: x\ncpus: many\n");
    const std::pair<std::string, std::string> refusals[] = {
        {" run " + bad + " true", "kvsim: " + bad + ":2:7: cpus: \"many\" is not a number\n"},
        {" check " + bad, "kvsim: " + bad + ":2:7: cpus: \"many\" is not a number\n"},
        {" run nowhere true", "kvsim: there is no machine \"nowhere\"; there are: "},
    };
    for (const auto& [arguments, reason] : refusals) {
        const Outcome outcome = shell(kKvsim + arguments);
        EXPECT_EQ(outcome.status, 2) << arguments;
        EXPECT_THAT(outcome.output, HasSubstr(reason)) << arguments;
    }
}

TEST(KvsimUse, ListsTheSoundMachinesAndTellsOfTheOthers) {
    const TemporaryFolder folder;
    folder.write("bench.yaml", "summary: on my bench\ncpus: 2\n");
    folder.write("bad.yaml", "cpus: 2\n");
    const Outcome outcome = shell("KVSIM_MACHINES=" + folder.path().string() + " " + kKvsim + " list");
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.output, HasSubstr("bad.yaml:1:1: a machine lacks the key \"summary\""));
    EXPECT_THAT(outcome.output,
                HasSubstr("bench            on my bench\n                 2 CPUs, 0 PCI functions"));
    EXPECT_THAT(outcome.output, HasSubstr("\nember "));
}

/** kvsim with a shell that prepares itself, tells by a file that it runs, and then waits for a signal. */
class RunningKvsim {
 public:
    RunningKvsim(const TemporaryFolder& folder, const std::string& preparation)
        : pidFile_(folder.path() / "pid") {
        const std::string script = preparation + "; echo $$ > " + pidFile_ + ".new; mv " + pidFile_ +
                                   ".new " + pidFile_ + "; while :; do sleep 0.05; done";
        supervisor_ = ::fork();
        if (supervisor_ == 0) {
            ::execl(kKvsim.c_str(), "kvsim", "run", "ember", "--", "sh", "-c", script.c_str(), nullptr);
            ::_exit(127);
        }
    }

    ~RunningKvsim() {
        if (supervisor_ != 0) {
            ::kill(supervisor_, SIGKILL);
            ::waitpid(supervisor_, nullptr, 0);
        }
    }
    RunningKvsim(const RunningKvsim&) = delete;
    RunningKvsim& operator=(const RunningKvsim&) = delete;

    [[nodiscard]] pid_t supervisor() const { return supervisor_; }

    /** The process of the command, once it runs; 0 when it does not in ten seconds. */
    [[nodiscard]] pid_t command() const {
        for (int i = 0; i < 1000; ++i) {
            if (pid_t pid = 0; std::ifstream(pidFile_) >> pid) {
                return pid;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return 0;
    }

    /** Waits for the end, which is given ten seconds; -1 after that. */
    [[nodiscard]] int end() {
        int status = 0;
        for (int i = 0; ::waitpid(supervisor_, &status, WNOHANG) == 0; ++i) {
            if (i == 1000) {
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        supervisor_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

 private:
    std::string pidFile_;
    pid_t supervisor_;
};

/** Whether a process has ended: it is gone, or only waits to be collected. */
bool endsSoon(pid_t pid) {
    for (int i = 0; i < 500; ++i) {
        std::string state;
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        if (!(stat >> state >> state >> state) || state == "Z") {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST_F(Kvsim, PassesSignalsOn) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const TemporaryFolder folder;
        RunningKvsim kvsim(folder, "trap 'exit 9' " + std::to_string(signal));
        ASSERT_NE(kvsim.command(), 0);
        ::kill(kvsim.supervisor(), signal);
        EXPECT_EQ(kvsim.end(), 9) << "signal " << signal;
    }
}

TEST_F(Kvsim, LetsOthersLookAtAMachineThatRuns) {
    const TemporaryFolder folder;
    const TemporaryFolder otherFolder;
    RunningKvsim kvsim(folder, "echo mine > /run/mine; cd /");
    const RunningKvsim other(otherFolder, "true");
    const std::string pid = std::to_string(kvsim.command());
    ASSERT_NE(other.command(), 0);
    EXPECT_THAT(shell(kKvsim + " ps | grep '^" + pid + " '").output,
                MatchesRegex(pid + " +ember +[-0-9]+ [:0-9]+ sh -c echo mine .*\n"));
    const std::string show =
        " -- sh -c 'cat /run/mine; echo $KVSIM_MACHINE; uname -n; id -u; pwd; sudo echo $1; exit 5' sh ";
    for (const std::string& process : {pid, std::to_string(kvsim.supervisor())}) {
        const Outcome inside =
            shell("cd " + folder.path().string() + "; " + kKvsim + " enter " + process + show + "arg");
        EXPECT_EQ(inside.status, 5);
        EXPECT_EQ(inside.output, "mine\nember\nember\n0\n" + folder.path().string() + "\narg\n");
    }
    const Outcome ambiguous = shell(kKvsim + " enter ember true");
    EXPECT_EQ(ambiguous.status, 2);
    EXPECT_THAT(ambiguous.output,
                HasSubstr("machines run for \"ember\"; give the number of a process:\nkvsim: PID "));
    EXPECT_THAT(ambiguous.output, HasSubstr("\nkvsim: " + pid + " "));
    EXPECT_THAT(shell(kKvsim + " enter 1 true").output, HasSubstr("kvsim: no machine runs for process 1\n"));

    ::kill(kvsim.supervisor(), SIGKILL);
    (void)kvsim.end();
    EXPECT_TRUE(endsSoon(std::stoi(pid)));
    EXPECT_EQ(shell(kKvsim + " ps | grep '^" + pid + " '").output, "") << "a machine that has ended";
}

TEST_F(Kvsim, TakesTheCommandWithItWhenItIsKilled) {
    const TemporaryFolder folder;
    RunningKvsim kvsim(folder, "true");
    const pid_t command = kvsim.command();
    ASSERT_NE(command, 0);
    ::kill(kvsim.supervisor(), SIGKILL);
    EXPECT_EQ(kvsim.end(), 128 + SIGKILL);
    if (!endsSoon(command)) {
        ::kill(command, SIGKILL);
        FAIL() << "the command runs on";
    }
}

TEST_F(Kvsim, TellsWhichRightIsMissing) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer starts a thread, and a process with threads can't make a user namespace";
#endif
    const std::string withoutNamespaces =
        "unshare --user --map-root-user sh -c 'echo 0 > /proc/sys/user/max_user_namespaces && "
        "exec setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin ";
    if (shell(withoutNamespaces + "true'").status != 0) {
        GTEST_SKIP() << "the limit on namespaces can't be set here";
    }
    const Outcome outcome = shell(withoutNamespaces + kKvsim + " run ember true'");
    EXPECT_EQ(outcome.status, 126);
    EXPECT_EQ(
        outcome.output,
        "kvsim: cannot make a user and mount namespace: No space left on device\n"
        "kvsim: No user namespace is allowed: sysctl user.max_user_namespaces=10000, or run this as root\n");
}

}  // namespace
