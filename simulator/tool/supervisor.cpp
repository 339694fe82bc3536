#include "tool/supervisor.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <ranges>
#include <sched.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

#include "host/detached_process.h"
#include "layout/format.h"
#include "os/unique_fd.h"
#include "tool/leftovers.h"
#include "tool/messages.h"
#include "tool/running_machines.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

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
    printMessage(command[0] + ": " + std::strerror(error));
    ::_exit(error == ENOENT ? kNoSuchCommand : kCannotRun);
}

[[noreturn]] void runChild(const std::function<void()>& enter, const std::vector<std::string>& command,
                           pid_t supervisor, const sigset_t& formerSignals) {
    try {
        enter();
    } catch (const std::exception& error) {
        printMessage(error.what());
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

/* ---- What the command's process hands its supervisor, which looks after it when the command has ended ----
 */

struct Remains {
    std::vector<CoveredFolder> folders;
    ino_t mountNamespace = 0;
    UniqueFd keeper;
    UniqueFd userNamespace;
};

void sendRemains(int connection, const EnteredMachine& machine) {
    for (const CoveredFolder& covered : machine.folders) {
        sendMessage(connection, covered.path + "\n" + covered.reason, {covered.folder.get()});
    }
    const UniqueFd userNamespace = kv::os::openFile("/proc/self/ns/user", O_RDONLY);
    sendMessage(connection, std::to_string(mountNamespaceOf(::getpid())),
                {machine.keeper.get(), userNamespace.get()});
}

/** Empty where the command's process never came to the machine. */
Remains receiveRemains(int connection) {
    Remains remains;
    while (std::optional<Message> message = receiveMessage(connection)) {
        const std::size_t lineEnd = message->text.find('\n');
        if (lineEnd == std::string::npos) {
            remains.mountNamespace = std::stoull(message->text);
            remains.keeper = std::move(message->descriptors.at(0));
            remains.userNamespace = std::move(message->descriptors.at(1));
            break;
        }
        remains.folders.push_back({message->text.substr(0, lineEnd), std::move(message->descriptors.at(0)),
                                   message->text.substr(lineEnd + 1)});
    }
    return remains;
}

/** The folder of the host that takes what would be lost. */
struct KeepFolder {
    std::string path;
    UniqueFd folder;

    /** False, and says why, where it can't be made. */
    bool open(const std::string& wanted) {
        path = wanted;
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (!error) {
            folder = kv::os::openFile(path, O_RDONLY | O_DIRECTORY);
            if (!folder || ::faccessat(folder.get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
                error.assign(errno, std::generic_category());
            }
        }
        if (error) {
            printMessage("cannot copy to " + printable(path) + ": " + std::strerror(error.value()));
        }
        return !error;
    }
};

/** Those that are still on a machine, after the time that the end of a pipeline takes. */
std::vector<pid_t> processesLeftOn(ino_t mountNamespace) {
    constexpr int kAttempts = 10;
    constexpr std::chrono::milliseconds kBetween(30);
    std::vector<pid_t> processes = processesOn(mountNamespace);
    for (int attempt = 0; attempt < kAttempts && !processes.empty(); ++attempt) {
        std::this_thread::sleep_for(kBetween);
        processes = processesOn(mountNamespace);
    }
    return processes;
}

void reportProcesses(const std::vector<pid_t>& processes) {
    constexpr std::size_t kMaxListed = 5;
    std::string message = "still on the machine, whose folders end with the last process:";
    for (const pid_t process : processes | std::views::take(kMaxListed)) {
        message += format("\n  process %d: ", process) + commandOf(process);
    }
    if (processes.size() > kMaxListed) {
        message += format("\n  and %zu more", processes.size() - kMaxListed);
    }
    printMessage(message);
}

/** False where something could not be kept. */
bool lookAfter(Remains remains, const KeepFolder& keep) {
    if (remains.mountNamespace == 0) {
        return true;
    }
    const std::vector<pid_t> processes = processesLeftOn(remains.mountNamespace);
    if (::geteuid() != 0) {
        // Root of that namespace may read files of any mode. If the call fails, unreadable files are left
        // out.
        (void)::setns(remains.userNamespace.get(), CLONE_NEWUSER);
    }
    bool isKept = true;
    {
        const Leftovers leftovers(std::move(remains.folders));
        if (keep.folder) {
            isKept = leftovers.copyTo(keep.folder.get(), keep.path);
        } else {
            leftovers.report();
        }
    }
    if (!processes.empty()) {
        reportProcesses(processes);
        return isKept;
    }
    // The host is as before when kvsim ends: no mount point is left, and the state folder is unlocked.
    constexpr int kPatienceMs = 2000;
    pollfd end{.fd = remains.keeper.get(), .events = POLLIN, .revents = 0};
    (void)::poll(&end, 1, kPatienceMs);
    return isKept;
}

}  // namespace

int runCommand(const std::function<void()>& enter, const std::vector<std::string>& command) {
    std::signal(SIGCHLD,
                SIG_DFL);  // a caller that ignores it hands that down, and no child could be waited for
    const sigset_t signals = supervisedSignals();
    sigset_t formerSignals;
    ::sigprocmask(SIG_BLOCK, &signals, &formerSignals);

    const pid_t supervisor = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        printMessage(std::string("cannot start a process: ") + std::strerror(errno));
        return kCannotRun;
    }
    if (child == 0) {
        runChild(enter, command, supervisor, formerSignals);
    }
    const int status = superviseUntilEnd(child, signals);
    // What has arrived for the command too late does not end this process with another status.
    constexpr timespec kNow{};
    while (::sigtimedwait(&signals, nullptr, &kNow) > 0) {
    }
    ::sigprocmask(SIG_SETMASK, &formerSignals, nullptr);
    return status;
}

int runOnMachine(const MachineDescription& description, const EntryOptions& options,
                 const std::string& keepFolder, const std::vector<std::string>& command) {
    KeepFolder keep;
    if (!keepFolder.empty() && !keep.open(keepFolder)) {
        return kCannotRun;
    }
    auto [ours, childs] = makeConnection();
    const int status = runCommand(
        [&, connection = childs.get()] { sendRemains(connection, enterMachine(description, options)); },
        command);
    childs.reset();
    const bool isKept = lookAfter(receiveRemains(ours.get()), keep);
    return status == 0 && !isKept ? kCannotKeep : status;
}

}  // namespace kvsim
