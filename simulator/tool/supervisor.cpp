#include "tool/supervisor.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kvsim {

namespace {

sigset_t supervisedSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD}) {
        ::sigaddset(&signals, signal);
    }
    return signals;
}

bool isInPath(const std::string& command) {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (::access(folder.append("/").append(command).c_str(), F_OK) == 0) {
            return true;
        }
    }
    return false;
}

[[noreturn]] void execute(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));  // exec changes nothing
    }
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    int error = errno;
    // A folder in PATH that may not be searched fails like a program that may not be run.
    if (error == EACCES && command[0].find('/') == std::string::npos && !isInPath(command[0])) {
        error = ENOENT;
    }
    std::fprintf(stderr, "kvsim: %s: %s\n", arguments[0], std::strerror(error));
    ::_exit(error == ENOENT ? kNoSuchCommand : kCannotRun);
}

[[noreturn]] void runChild(Machine& machine, const std::vector<std::string>& command, pid_t supervisor,
                           const sigset_t& formerSignals) {
    try {
        machine.enter();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kvsim: %s\n", error.what());
        ::_exit(kCannotRun);
    }
    // Only now: a change of user namespace takes the wish back.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != supervisor) {
        ::_exit(kCannotRun);  // the supervisor died before the wish stood
    }
    ::sigprocmask(SIG_SETMASK, &formerSignals, nullptr);
    execute(command);
}

int superviseUntilEnd(pid_t child, const sigset_t& signals) {
    for (;;) {
        siginfo_t signal{};
        if (::sigwaitinfo(&signals, &signal) < 0) {
            continue;  // interrupted, by a stop and a continuation
        }
        int status = 0;
        if (signal.si_signo != SIGCHLD) {
            // What the terminal sends reaches the whole foreground group, the command included.
            if (signal.si_code != SI_KERNEL) {
                ::kill(child, signal.si_signo);
            }
        } else if (::waitpid(child, &status, WNOHANG) == child) {
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
    }
}

}  // namespace

int runCommand(Machine& machine, const std::vector<std::string>& command) {
    std::signal(SIGCHLD,
                SIG_DFL);  // a caller that ignores it hands that down, and no child could be waited for
    const sigset_t signals = supervisedSignals();
    sigset_t formerSignals;
    ::sigprocmask(SIG_BLOCK, &signals, &formerSignals);

    const pid_t supervisor = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        std::fprintf(stderr, "kvsim: cannot start a process: %s\n", std::strerror(errno));
        return kCannotRun;
    }
    if (child == 0) {
        runChild(machine, command, supervisor, formerSignals);
    }
    return superviseUntilEnd(child, signals);
}

}  // namespace kvsim
