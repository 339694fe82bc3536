#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include <brevane/Logger.h>

#include "eth_command.h"
#include "info_command.h"
#include "pci_command.h"
#include "serial_command.h"
#include "time_command.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Shows what the hardware-support library sees of this machine.\n"
        "Exit status: 0 good, 1 something is missing or failed, 2 wrong usage.\n"
        "What is missing is named on standard error; the rest is shown all the same."};
    app.require_subcommand(1);
    kvctl::Problems problems;
    kvctl::addInfoCommand(app, problems);
    kvctl::addPciCommand(app, problems);
    kvctl::addEthCommand(app, problems);
    kvctl::addSerialCommand(app, problems);
    kvctl::addTimeCommand(app);

    brevane::Logger::setUpSinks(boost::log::trivial::warning);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageError;
    } catch (const std::exception& error) {
        std::cerr << "kvctl: " << error.what() << '\n';
        return kFailed;
    }
    if (!std::cout.flush()) {
        problems.report("standard output", "not everything could be written");
    }
    return problems.any() ? kFailed : 0;
}
