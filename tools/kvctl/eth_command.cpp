#include "eth_command.h"

#include <charconv>
#include <filesystem>
#include <string_view>

#include <kv/network.h>

namespace kvctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTranslationFile = "/usr/kelvaro/sysinfo/ethTranslateFile.txt";
constexpr const char* kInterfacesFolder = "/sys/class/net/";
constexpr std::string_view kPciDomain = "0000:";

/** An entry of the translation file. */
struct Entry {
    std::string interface;
    int index = 0;
    std::string label;
};

struct Port {
    Entry entry;
    std::optional<std::string> pciAddress = {};
    std::optional<std::string> mac = {};
};

std::optional<Entry> parseEntry(std::string_view text) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == text.npos ? text.npos : text.find(':', first + 1);
    if (second == text.npos || text.substr(0, first).find('/') != text.npos) {
        return std::nullopt;
    }
    Entry entry{.interface = std::string(text.substr(0, first)),
                .label = std::string(text.substr(second + 1))};
    const char* const end = text.data() + second;
    const auto [parsed, error] = std::from_chars(text.data() + first + 1, end, entry.index);
    return error == std::errc() && parsed == end ? std::optional(entry) : std::nullopt;
}

/** The entries up to the first that is none, which is reported. */
std::vector<Entry> parseEntries(std::string_view text, Problems& problems) {
    std::vector<Entry> entries;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find(';', begin);
        const auto entry = end == text.npos ? std::nullopt : parseEntry(text.substr(begin, end - begin));
        if (!entry) {
            problems.report(kTranslationFile,
                            "there is no entry INTERFACE:INDEX:LABEL; at byte " + std::to_string(begin));
            break;
        }
        entries.push_back(*entry);
        begin = end + 1;
    }
    return entries;
}

/** The PCI function behind an interface; none for the chip's own. */
std::optional<std::string> pciAddressOf(const std::string& interface) {
    std::error_code error;
    const fs::path device = fs::canonical(kInterfacesFolder + interface + "/device", error);
    if (error || fs::canonical(device / "subsystem", error).filename() != "pci") {
        return std::nullopt;
    }
    const std::string name = device.filename();
    return name.starts_with(kPciDomain) ? name.substr(kPciDomain.size()) : name;
}

std::vector<Port> readPorts(std::string_view translation, Problems& problems) {
    std::vector<Port> ports;
    for (const Entry& entry : parseEntries(translation, problems)) {
        Port port{.entry = entry};
        if (!entry.interface.empty()) {
            port.pciAddress = pciAddressOf(entry.interface);
            port.mac = firstLineOf(kInterfacesFolder + entry.interface + "/address", problems);
        }
        ports.push_back(port);
    }
    return ports;
}

Json toJson(const std::vector<Port>& ports) {
    Json list = Json::array();
    for (const Port& port : ports) {
        const std::string& interface = port.entry.interface;
        list.push_back({{"interface", interface.empty() ? Json(nullptr) : Json(interface)},
                        {"index", port.entry.index},
                        {"label", port.entry.label},
                        {"pciAddress", orNull(port.pciAddress)},
                        {"mac", orNull(port.mac)}});
    }
    return list;
}

void print(const std::vector<Port>& ports) {
    Rows rows = {{"label", "interface", "index", "PCI", "MAC"}};
    for (const Port& port : ports) {
        const Entry& entry = port.entry;
        rows.push_back({entry.label, entry.interface.empty() ? "-" : entry.interface,
                        std::to_string(entry.index), port.pciAddress.value_or("-"), port.mac.value_or("-")});
    }
    printColumns(rows);
}

/** The text of the translation file; none, which is reported, where it cannot be written or read. */
std::optional<std::string> readTranslation(bool write, Problems& problems) {
    if (write && kv_translateEthernetInterfaces() != 0) {
        problems.report(kTranslationFile, "not written, for the reason in the library's log");
        return std::nullopt;
    }
    std::error_code unknown;
    if (!write && fs::status(kTranslationFile, unknown).type() == fs::file_type::not_found) {
        problems.report(kTranslationFile, "No such file or directory; kvctl eth --write makes it");
        return std::nullopt;
    }
    return contentsOf(kTranslationFile, problems);
}

void showPorts(bool asJson, bool write, Problems& problems) {
    const std::optional<std::string> translation = readTranslation(write, problems);
    const std::vector<Port> ports = translation ? readPorts(*translation, problems) : std::vector<Port>();
    if (asJson) {
        printJson(toJson(ports));
    } else if (translation) {
        print(ports);
    }
}

}  // namespace

void addEthCommand(command_line::Program& program, Problems& problems) {
    command_line::Command& command = program.addCommand(
        "eth", "Show which network interface is which connector, as the translation file has it");
    const auto asJson = addJsonFlag(command);
    auto write = std::make_shared<bool>(false);
    command.addFlag("--write", *write, std::string("Write ") + kTranslationFile + " first");
    command.setFooter(
        "The index is the controller's position among the PCI Ethernet controllers, -1 for the chip's own.");
    command.setAction([asJson, write, &problems] {
        showPorts(*asJson, *write, problems);
        return problems.status();
    });
}

}  // namespace kvctl
