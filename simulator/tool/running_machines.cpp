#include "tool/running_machines.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "layout/format.h"
#include "os/unique_fd.h"
#include "tool/messages.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

std::string procPath(pid_t process, const char* name) {
    return format("/proc/%d/%s", process, name);
}

std::optional<pid_t> processNumber(const std::string& text) {
    pid_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() && number > 0;
    return isNumber ? std::optional(number) : std::nullopt;
}

std::vector<pid_t> processesOfThisUser() {
    std::vector<pid_t> processes;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc"), ::closedir);
    while (const dirent* entry = directory ? ::readdir(directory.get()) : nullptr) {
        struct stat status {};
        const std::optional<pid_t> number = processNumber(entry->d_name);
        if (number && ::stat(procPath(*number, "").c_str(), &status) == 0 && status.st_uid == ::geteuid()) {
            processes.push_back(*number);
        }
    }
    std::ranges::sort(processes);
    return processes;
}

/** The record of the machine that a process is on. Empty where it is on none. */
std::optional<RunningMachine> machineOf(pid_t process, ino_t mountNamespace) {
    const std::string path = procPath(process, "root") + kMachineRecord;
    RunningMachine machine;
    MachineRecord& record = machine.record;
    std::ifstream file(path);
    struct stat status {};
    // The simulator's server sees the machine's files as well, but from outside.
    if (!std::getline(file, record.name) ||
        !(file >> record.mountNamespace >> record.program >> record.starter) ||
        record.mountNamespace != mountNamespace || ::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    machine.since = status.st_mtime;
    return machine;
}

std::string timeText(std::time_t time) {
    std::array<char, 32> text{};
    std::tm local{};
    ::localtime_r(&time, &local);
    std::strftime(text.data(), text.size(), "%F %T", &local);
    return text.data();
}

[[noreturn]] void refuse(const std::string& reason, const std::vector<RunningMachine>& machines) {
    throw std::runtime_error(reason + (machines.empty() ? "" : "\n" + tableOf(machines)));
}

[[noreturn]] void failToJoin(const RunningMachine& machine) {
    const int error = errno;
    const bool hasEnded = error == ENOENT || error == ESRCH;
    throw std::runtime_error(format("cannot enter the machine of process %d: %s", machine.mainProcess(),
                                    hasEnded ? "it has ended" : std::strerror(error)));
}

/** A namespace of a process; empty where this process is in the same. */
UniqueFd otherNamespace(const RunningMachine& machine, const char* name) {
    UniqueFd theirs = kv::os::openFile(procPath(machine.mainProcess(), name), O_RDONLY);
    struct stat own {};
    struct stat their {};
    if (!theirs || ::fstat(theirs.get(), &their) != 0 ||
        ::stat((std::string("/proc/self/") + name).c_str(), &own) != 0) {
        failToJoin(machine);
    }
    return own.st_ino == their.st_ino ? UniqueFd() : std::move(theirs);
}

}  // namespace

pid_t RunningMachine::mainProcess() const {
    return std::ranges::binary_search(processes, record.program) ? record.program : processes.front();
}

std::vector<RunningMachine> runningMachines() {
    std::map<ino_t, RunningMachine> machines;
    for (const pid_t process : processesOfThisUser()) {
        const ino_t mountNamespace = mountNamespaceOf(process);
        if (!machines.contains(mountNamespace)) {
            const std::optional<RunningMachine> machine = machineOf(process, mountNamespace);
            if (!machine) {
                continue;
            }
            machines[mountNamespace] = *machine;
        }
        machines[mountNamespace].processes.push_back(process);
    }
    std::vector<RunningMachine> all;
    for (const auto& [mountNamespace, machine] : machines) {
        all.push_back(machine);
    }
    std::ranges::stable_sort(all, {}, &RunningMachine::since);
    return all;
}

std::vector<pid_t> processesOn(ino_t mountNamespace) {
    std::vector<pid_t> processes = processesOfThisUser();
    std::erase_if(processes, [&](pid_t process) { return mountNamespaceOf(process) != mountNamespace; });
    return processes;
}

std::string commandOf(pid_t process) {
    std::ifstream file(procPath(process, "cmdline"), std::ios::binary);
    std::string command;
    for (std::string argument; std::getline(file, argument, '\0');) {
        command += (command.empty() ? "" : " ") + printable(argument);
    }
    return command;
}

RunningMachine findRunningMachine(const std::string& nameOrProcess) {
    const std::vector<RunningMachine> machines = runningMachines();
    const std::optional<pid_t> process = processNumber(nameOrProcess);
    std::vector<RunningMachine> found;
    std::ranges::copy_if(machines, std::back_inserter(found), [&](const RunningMachine& machine) {
        return machine.record.name == nameOrProcess || (process && machine.record.starter == *process) ||
               (process && std::ranges::binary_search(machine.processes, *process));
    });
    if (found.empty()) {
        refuse((process ? "no machine runs for process " : "no machine runs with the name ") +
                   printable(nameOrProcess),
               machines);
    }
    if (found.size() > 1) {
        refuse(format("%zu machines run for \"%s\"; give the number of a process:", found.size(),
                      printable(nameOrProcess).c_str()),
               found);
    }
    return found.front();
}

std::string tableOf(const std::vector<RunningMachine>& machines) {
    std::string table = format("%-8s %-16s %-19s %s\n", "PID", "MACHINE", "SINCE", "COMMAND");
    for (const RunningMachine& machine : machines) {
        table +=
            format("%-8d %-16s %-19s %s\n", machine.mainProcess(), printable(machine.record.name).c_str(),
                   timeText(machine.since).c_str(), commandOf(machine.mainProcess()).c_str());
    }
    return table;
}

void joinMachine(const RunningMachine& machine) {
    std::error_code unreachable;
    const std::filesystem::path currentFolder = std::filesystem::current_path(unreachable);
    const UniqueFd user = otherNamespace(machine, "ns/user");
    const UniqueFd mounts = otherNamespace(machine, "ns/mnt");
    const UniqueFd hostName = otherNamespace(machine, "ns/uts");
    const UniqueFd root = kv::os::openFile(procPath(machine.mainProcess(), "root"), O_PATH | O_DIRECTORY);
    // A thread that shares its root folder with others, such as one of a sanitizer, may not change its
    // mounts.
    if (!root || ::unshare(CLONE_FS) != 0 || (user && ::setns(user.get(), CLONE_NEWUSER) != 0) ||
        (mounts && ::setns(mounts.get(), CLONE_NEWNS) != 0) || ::fchdir(root.get()) != 0 ||
        ::chroot(".") != 0) {
        failToJoin(machine);
    }
    if (hostName) {
        (void)::setns(hostName.get(), CLONE_NEWUTS);  // for people to see
    }
    if (!unreachable) {
        std::filesystem::current_path(currentFolder, unreachable);  // the machine's root where it has none
    }
    setMachineEnvironment(machine.record.name);
}

}  // namespace kvsim
