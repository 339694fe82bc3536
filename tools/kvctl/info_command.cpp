#include "info_command.h"

#include <array>
#include <cstring>
#include <unistd.h>

#include <kv/process.h>
#include <kv/target.h>

namespace kvctl {

namespace {

constexpr const char* kSerialNumberFile = "/sys/devices/platform/ember/rttm/system_serial";
constexpr const char* kTemperatureFile = "/sys/class/hwmon/hwmon0/temp1_input";
constexpr const char* kMarketingNameFile = "/usr/kelvaro/sysinfo/kelvaro_marketingName.txt";
constexpr const char* kVersionFile = "/usr/kelvaro/sysinfo/kelvaro_version.txt";

/** By the value of kv_TargetType. */
constexpr std::array kTypeNames = {"Alder",     "Birch", "Quartz",    "Keystone", "Keystone_TopLayer",
                                   "RamblerV2", "Fir",   "Cubit",     "Hazel",    "RamblerRugged",
                                   "Scholar2",  "Kapok", "RamblerV3", "Larch",    "Maple",
                                   "Nutmeg",    "Olive", "NonKelvaro"};
static_assert(kTypeNames.size() == NonKelvaro + 1);

struct SerialNumbers {
    std::optional<int> customer;
    std::optional<int> internal;
    std::optional<int> supplier;
};

struct Information {
    std::string type = kTypeNames.at(kv_getTargetType());
    std::string name = kv_getTargetMarketingName();
    SerialNumbers serialNumbers;
    std::optional<int> temperature;
    long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    std::optional<std::string> libraryVersion;
    std::array<std::string, 2> screenLines = {kv_getTargetScreenLine1(), kv_getTargetScreenLine2()};
};

std::optional<int> unlessMissing(int serialNumber) {
    return serialNumber == -1 ? std::nullopt : std::optional(serialNumber);
}

SerialNumbers readSerialNumbers(Problems& problems) {
    if (!firstLineOf(kSerialNumberFile, problems)) {
        return {};
    }
    const SerialNumbers numbers = {.customer = unlessMissing(kv_getSerialNumber()),
                                   .internal = unlessMissing(kv_getSerialNumberInternal()),
                                   .supplier = unlessMissing(kv_getSerialNumberSupplier())};
    if (!numbers.customer && !numbers.internal && !numbers.supplier) {
        problems.report(kSerialNumberFile, "this is no serial number");
    }
    return numbers;
}

std::optional<std::string> readLibraryVersion(Problems& problems) {
    std::array<char, KV_LIB_VERSION_SIZE> line;
    // Without the file the library writes to standard output, where programs expect JSON.
    if (!firstLineOf(kVersionFile, problems) || kv_getLibVersion(line.data()) != 0) {
        return std::nullopt;
    }
    return std::string(line.data(), std::strcspn(line.data(), "\n"));
}

Information readInformation(Problems& problems) {
    Information information;
    information.serialNumbers = readSerialNumbers(problems);
    if (firstLineOf(kTemperatureFile, problems)) {
        information.temperature = kv_getCpuTemperature();
    }
    information.libraryVersion = readLibraryVersion(problems);
    (void)firstLineOf(kMarketingNameFile, problems);  // the screen shows a placeholder without it
    return information;
}

Json toJson(const Information& information) {
    const SerialNumbers& numbers = information.serialNumbers;
    return {{"type", information.type},
            {"name", information.name},
            {"serialNumbers",
             {{"customer", orNull(numbers.customer)},
              {"internal", orNull(numbers.internal)},
              {"supplier", orNull(numbers.supplier)}}},
            {"temperatureCelsius", orNull(information.temperature)},
            {"cpus", information.cpus},
            {"libraryVersion", orNull(information.libraryVersion)},
            {"screenLines", information.screenLines}};
}

std::string textOf(const std::optional<int>& number) {
    return number ? std::to_string(*number) : "none";
}

/** A line as it is seen on the screen, without the tags that colour it. */
std::string withoutTags(std::string line) {
    for (const char* tag : {"<white>", "</white>"}) {
        if (const std::size_t position = line.find(tag); position != std::string::npos) {
            line.erase(position, std::strlen(tag));
        }
    }
    return line;
}

void print(const Information& information) {
    const SerialNumbers& numbers = information.serialNumbers;
    const std::optional<int>& temperature = information.temperature;
    printColumns({{"type", information.type},
                  {"name", information.name},
                  {"serial number", textOf(numbers.customer)},
                  {"  internal", textOf(numbers.internal)},
                  {"  supplier's", textOf(numbers.supplier)},
                  {"temperature", temperature ? textOf(temperature) + " degrees Celsius" : "unknown"},
                  {"CPUs", std::to_string(information.cpus)},
                  {"library", information.libraryVersion.value_or("unknown")},
                  {"screen", withoutTags(information.screenLines[0])},
                  {"", withoutTags(information.screenLines[1])}});
}

}  // namespace

void addInfoCommand(command_line::Program& program, Problems& problems) {
    command_line::Command& command = program.addCommand(
        "info", "Show type, name, serial numbers, temperature, CPUs, library version and screen");
    const auto asJson = addJsonFlag(command);
    command.setFooter("A machine has one serial number, of one of the three kinds.");
    command.setAction([asJson, &problems] {
        const Information information = readInformation(problems);
        *asJson ? printJson(toJson(information)) : print(information);
        return problems.status();
    });
}

}  // namespace kvctl
