#include <exception>
#include <iostream>

#include <brevane/Logger.h>

#include "command_line/command_line.h"
#include "eth_command.h"
#include "info_command.h"
#include "pci_command.h"
#include "serial_command.h"
#include "time_command.h"

namespace {

constexpr const char* kName = "kvctl";
constexpr int kFailed = 1;

}  // namespace

int main(int argc, char** argv) {
    command_line::Program program(kName,
                                  "Shows what the hardware-support library sees of this machine.\n"
                                  "Exit status: 0 good, 1 something is missing or failed, 2 wrong usage.\n"
                                  "What is missing is named on standard error; the rest is shown.");
    kvctl::Problems problems;
    kvctl::addInfoCommand(program, problems);
    kvctl::addPciCommand(program, problems);
    kvctl::addEthCommand(program, problems);
    kvctl::addSerialCommand(program, problems);
    kvctl::addTimeCommand(program);

    brevane::Logger::setUpSinks(boost::log::trivial::warning);
    try {
        return program.run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << kName << ": " << error.what() << '\n';
        return kFailed;
    }
}
