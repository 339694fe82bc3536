#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include <brevane/Logger.h>

#include "pci_command.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Shows what the hardware-support library sees of this machine.\n"
        "Exit status: 0 done, 1 the machine could not be read, 2 wrong usage."};
    app.require_subcommand(1);
    kvctl::addPciCommand(app);

    brevane::Logger::setUpSinks(boost::log::trivial::warning);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageError;
    } catch (const std::exception& error) {
        std::cerr << "kvctl: " << error.what() << '\n';
        return kFailed;
    }
    return 0;
}
