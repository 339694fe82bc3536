#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "kvsim/description_reader.h"
#include "kvsim/machine.h"
#include "tool/supervisor.h"

namespace {

constexpr int kBadUse = 2;

constexpr const char* kStateOption = "--state";

constexpr const char* kFooter = R"(
MACHINE is a name, looked up in the folders of KVSIM_MACHINES (separated by
colons) and among the machines that come with kvsim, or the path of a YAML file.

Exit status of 'kvsim run': that of COMMAND, 128+N when signal N ended it;
2 for wrong usage or a bad description, 126 when COMMAND can't be executed or
this user may not make namespaces, 127 when there is no COMMAND.)";

/**
 * The arguments as CLI11 takes them, last one first, without the "--" behind the machine, after which it
 * would accept no command.
 */
std::vector<std::string> argumentsFor(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    auto argument = arguments.begin();
    const auto is = [&](const std::string& text) { return argument != arguments.end() && *argument == text; };
    if (is("run")) {
        ++argument;
        if (is(kStateOption) && std::next(argument) != arguments.end()) {
            argument += 2;
        } else if (argument != arguments.end() && argument->starts_with(std::string(kStateOption) + "=")) {
            ++argument;
        }
        if (argument != arguments.end()) {
            ++argument;  // the machine
        }
        if (is("--")) {
            arguments.erase(argument);
        }
    }
    std::ranges::reverse(arguments);
    return arguments;
}

std::string counts(const kvsim::MachineDescription& machine) {
    const auto bridges = std::ranges::count_if(machine.pciFunctions, [](const kvsim::PciFunction& function) {
        return function.secondaryBus.has_value();
    });
    return std::to_string(machine.cpus) + " CPUs, " + std::to_string(machine.pciFunctions.size()) +
           " PCI functions (" + std::to_string(bridges) + " of them bridges), " +
           std::to_string(machine.platformDevices.size()) + " platform devices";
}

int run(const std::string& nameOrPath, const std::string& stateFolder,
        const std::vector<std::string>& command) {
    kvsim::Machine machine(kvsim::readDescription(kvsim::findMachine(nameOrPath)));
    machine.keepStateIn(stateFolder);
    return kvsim::runCommand(machine, command);
}

int check(const std::string& nameOrPath) {
    const auto file = kvsim::findMachine(nameOrPath);
    const kvsim::MachineDescription machine = kvsim::readDescription(file);
    std::printf("%s: %s\n", file.c_str(), counts(machine).c_str());
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
            std::fprintf(stderr, "kvsim: %s\n", error.what());
            status = kBadUse;
        }
    }
    return status;
}

int dispatch(int argc, char** argv) {
    CLI::App app("Runs programs on a simulated target machine", "kvsim");
    app.require_subcommand(1);
    app.footer(kFooter);

    std::string machine;
    CLI::App* const runApp = app.add_subcommand(
        "run", "Run a command: kvsim run [--state DIR] MACHINE [--] COMMAND [ARGUMENT...]");
    std::string stateFolder;
    runApp
        ->add_option(
            kStateOption, stateFolder,
            "Keep /tmp/kelvaro, /usr/kelvaro, logs and shared memory in DIR between runs, as a machine "
            "does that stays powered; without it each run is a fresh boot")
        ->type_name("DIR");
    runApp->add_option("MACHINE", machine, "The machine to run on")->required();
    runApp->prefix_command();
    CLI::App* const listApp = app.add_subcommand("list", "Show the machines there are");
    CLI::App* const checkApp = app.add_subcommand("check", "Tell whether a description is sound");
    checkApp->add_option("MACHINE", machine, "The machine to check")->required();

    try {
        app.parse(argumentsFor(argc, argv));
        if (listApp->parsed()) {
            return list();
        }
        if (checkApp->parsed()) {
            return check(machine);
        }
        const std::vector<std::string> command = runApp->remaining();
        if (command.empty()) {
            throw CLI::RequiredError("COMMAND");
        }
        return run(machine, stateFolder, command);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadUse;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return dispatch(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kvsim: %s\n", error.what());
        return kBadUse;
    }
}
