#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/shell.h"

using kv::test::Outcome;
using kv::test::shell;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;

namespace {

constexpr const char* kApplication = "/opt/control_loop";
constexpr unsigned kStopTimeMs = 2600;

/** The program that acts behind the registers of the boards, from when they are ready until its end. */
class Boards {
 public:
    Boards() {
        int ends[2];
        if (::pipe(ends) != 0) {
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(ends[1], STDOUT_FILENO);
            ::execlp("system_board", "system_board", "/etc/ember.yaml", nullptr);
            ::_exit(127);
        }
        ::close(ends[1]);
        char text[16] = {};
        isReady_ = ::read(ends[0], text, sizeof text) > 0;
        ::close(ends[0]);
    }
    ~Boards() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Boards(const Boards&) = delete;
    Boards& operator=(const Boards&) = delete;

    [[nodiscard]] bool areReady() const { return isReady_; }

 private:
    pid_t pid_ = -1;
    bool isReady_ = false;
};

/** The example model in its application folder, on boards that act. */
class Demo : public testing::Test {
 protected:
    void SetUp() override { ASSERT_TRUE(boards_.areReady()); }

    static Outcome run(const std::string& options) {
        return shell(std::string(kApplication) + "/bin/control_loop --max-skipped 100 " + options);
    }

 private:
    Boards boards_;
};

/** How often the kernel has served the interrupt of the boards' driver, on all CPUs. */
unsigned interrupts() {
    std::ifstream table("/proc/interrupts");
    unsigned sum = 0;
    for (std::string line; std::getline(table, line);) {
        if (line.ends_with(" uio_kelvaro")) {
            std::istringstream columns(line.substr(line.find(':') + 1));
            for (unsigned count = 0; columns >> count;) {
                sum += count;
            }
        }
    }
    return sum;  // 0 before the driver has a board
}

TEST_F(Demo, HoldsThePlantAtItsSetPointPacedByTheBoardsInterrupt) {
    const unsigned before = interrupts();
    const Outcome model = run("--stop-time " + std::to_string(kStopTimeMs / 1000.0));
    EXPECT_EQ(model.status, 0);
    EXPECT_THAT(
        model.output,
        AllOf(HasSubstr("Ember real-time target machine, serial number 40127, processor at 45 degrees"),
              HasSubstr("board 1     1b5a:0a18 at bus 9, slot 0"), HasSubstr("identity 0x0a180001"),
              HasSubstr("board 2     1b5a:0a28 at bus 15, slot 0"), HasSubstr("identity 0x0a280001"),
              HasSubstr("the model runs on CPU 1"), HasSubstr("0 faults"), HasSubstr("ran on CPU 2"),
              HasSubstr("; 0 samples lost"),
              HasSubstr("settling    4 of 4 changes between 2.00 V and 5.00 V"),
              HasSubstr("registry    empty again"), HasSubstr("result      good")));
    std::smatch steps;
    ASSERT_TRUE(std::regex_search(model.output, steps, std::regex("\nsteps +([0-9]+) in "))) << model.output;
    const auto served = static_cast<unsigned>(std::stoul(steps[1].str()));
    EXPECT_GT(served, kStopTimeMs * 9 / 10) << model.output;
    EXPECT_THAT(interrupts() - before, AnyOf(served, served + 1))
        << "one may be on its way as the model ends";
}

TEST_F(Demo, GoesOnFromTheRunBeforeUnlessItWasChanged) {
    std::ofstream(std::string(kApplication) + "/misc/UUID") << "another build\n";
    const Outcome first = run("--stop-time 0.5");
    EXPECT_THAT(first.output, AllOf(HasSubstr("start       model load"), HasSubstr("starts from zero"),
                                    HasSubstr("result      good")));
    std::smatch left;
    ASSERT_TRUE(std::regex_search(first.output, left, std::regex("integrator at ([0-9.-]+ V);")))
        << first.output;
    EXPECT_THAT(run("--stop-time 0.5").output,
                AllOf(HasSubstr("start       model run"),
                      HasSubstr("goes on in run 2, its integrator at " + left[1].str() + " as the run"),
                      HasSubstr("result      good")));
}

}  // namespace
