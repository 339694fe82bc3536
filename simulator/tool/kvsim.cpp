#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "command_line/command_line.h"
#include "kvsim/description_reader.h"
#include "tool/messages.h"
#include "tool/running_machines.h"
#include "tool/supervisor.h"

namespace {

constexpr const char* kFooter = R"(MACHINE is a name, looked up in the folders of KVSIM_MACHINES (separated by
colons) and among the machines that come with kvsim, or the path of a YAML file.

Exit status of 'kvsim run' and 'kvsim enter': that of COMMAND, 128+N when
signal N ended it; 1 when COMMAND succeeded, but --keep could not copy all;
2 for wrong usage or a bad description, 126 when COMMAND can't be executed or
there can be no machine for this user, 127 when there is no COMMAND.)";

std::string counts(const kvsim::MachineDescription& machine) {
    const auto bridges = std::ranges::count_if(machine.pciFunctions, [](const kvsim::PciFunction& function) {
        return function.secondaryBus.has_value();
    });
    return std::to_string(machine.cpus) + " CPUs, " + std::to_string(machine.pciFunctions.size()) +
           " PCI functions (" + std::to_string(bridges) + " of them bridges), " +
           std::to_string(machine.platformDevices.size()) + " platform devices";
}

int run(const std::string& nameOrPath, const std::string& stateFolder, const std::string& keepFolder,
        const std::vector<std::string>& command) {
    const auto file = kvsim::findMachine(nameOrPath);
    const kvsim::MachineDescription machine = kvsim::readDescription(file);
    return kvsim::runOnMachine(machine, {.name = file.stem(), .stateFolder = stateFolder}, keepFolder,
                               command);
}

int enter(const std::string& nameOrProcess, const std::vector<std::string>& command) {
    const kvsim::RunningMachine machine = kvsim::findRunningMachine(nameOrProcess);
    return kvsim::runCommand([&machine] { kvsim::joinMachine(machine); }, command);
}

int showRunning() {
    std::printf("%s", kvsim::tableOf(kvsim::runningMachines()).c_str());
    return 0;
}

int check(const std::string& nameOrPath) {
    const auto file = kvsim::findMachine(nameOrPath);
    std::vector<kvsim::Hint> hints;
    const kvsim::MachineDescription machine = kvsim::readDescription(file, hints);
    std::printf("%s: %s\n", file.c_str(), counts(machine).c_str());
    for (const kvsim::Hint& hint : hints) {
        kvsim::printMessage(file.string() + ":" + std::to_string(hint.position.line) + ":" +
                            std::to_string(hint.position.column) + ": hint: " + hint.text);
    }
    return 0;
}

int list() {
    int status = 0;
    for (const auto& file : kvsim::machineFiles()) {
        try {
            const kvsim::MachineDescription machine = kvsim::readDescription(file);
            std::printf("%-16s %s\n%-16s %s\n", file.stem().c_str(), machine.summary.c_str(), "",
                        counts(machine).c_str());
        } catch (const kvsim::DescriptionError& error) {
            kvsim::printMessage(error.what());
            status = command_line::kUsageError;
        }
    }
    return status;
}

int runProgram(int argc, char** argv) {
    command_line::Program program("kvsim", "Runs programs on a simulated target machine");
    program.setFooter(kFooter);

    std::string machine;
    std::string stateFolder;
    std::string keepFolder;
    std::vector<std::string> command;
    command_line::Command& runCommand = program.addCommand("run", "Run a command on a machine");
    runCommand.addOption("--state", "DIR", stateFolder,
                         "Keep /tmp/kelvaro, /usr/kelvaro, logs and shared memory in DIR between runs, as a "
                         "machine does that stays powered; without it each run is a fresh boot");
    runCommand.addOption("--keep", "DIR", keepFolder,
                         "Copy what is left in the machine's folders (/dev, /run, ...) to DIR at the end; it "
                         "is lost otherwise");
    runCommand.addArgument("MACHINE", machine, "The machine to run on");
    runCommand.addUserCommand(command, "The command, and its arguments");
    runCommand.setAction([&] { return run(machine, stateFolder, keepFolder, command); });

    command_line::Command& enterCommand =
        program.addCommand("enter", "Run a command on a machine that is running already");
    enterCommand.addArgument("NAME|PID", machine, "The machine, or a process on it");
    enterCommand.addUserCommand(command, "The command, and its arguments");
    enterCommand.setAction([&] { return enter(machine, command); });

    program.addCommand("ps", "Show your running machines").setAction(showRunning);
    program.addCommand("list", "Show the machines there are").setAction(list);

    command_line::Command& checkCommand =
        program.addCommand("check", "Report whether a description is valid");
    checkCommand.addArgument("MACHINE", machine, "The machine to check");
    checkCommand.setAction([&] { return check(machine); });
    return program.run(argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return runProgram(argc, argv);
    } catch (const std::exception& error) {
        kvsim::printMessage(error.what());
        return command_line::kUsageError;
    }
}
