#include "serial_command.h"

#include <array>
#include <filesystem>
#include <stdexcept>

#include <kv/pci.h>
#include <kv/serial.h>

#include "topology.h"

namespace kvctl {

namespace {

namespace fs = std::filesystem;
using kv::utils::formatString;

/** The onboard ports of this target. */
struct Uart {
    int port;
    uint32_t address;
};
constexpr Uart kUarts[] = {{1, 0xFF000000}, {2, 0xFF010000}};

constexpr uint32_t kSerialController = 0x0700;  // base class and sub-class
constexpr uint32_t kMultiportSerialController = 0x0702;

constexpr int kNoSuchPort = -3;

/** Results of kv_findSerialDeviceByPci(), from -1 down. */
constexpr std::array kCardFailures = {"the device database has no such function",
                                      "the device database cannot be searched",
                                      "this serial card has no ports; does a driver hold it?",
                                      "a port has no device node", "the path of a device node is too long"};

using NodePath = std::array<char, 256>;

struct Port {
    std::optional<int> number = {};
    std::optional<uint32_t> uart = {};
    std::optional<std::string> pciAddress = {};
    std::optional<std::string> node = {};
    std::string state = "not found";
};

void setNode(Port& port, const std::string& node, Problems& problems) {
    port.node = node;
    std::error_code error;
    if (fs::is_character_file(node, error)) {
        port.state = "present";
        return;
    }
    port.state = "node missing";
    problems.report(node, error ? error.message() : "this is no character device");
}

Port onboardPort(const Uart& uart, Problems& problems) {
    Port port{.number = uart.port, .uart = uart.address};
    NodePath node;
    if (kv_findSerialDeviceByPort(uart.address, node.data(), node.size()) == 0) {
        setNode(port, node.data(), problems);
    } else {
        problems.report("/sys/class/tty", formatString("no device has the UART of port %d (iomem_base 0x%X)",
                                                       uart.port, uart.address));
    }
    return port;
}

void addCardPorts(const kv_topo_node& card, std::vector<Port>& ports, Problems& problems) {
    kv_PCIDevice place{};
    place.bus = card.bus;
    place.slot = card.slot;
    NodePath node;
    const auto find = [&](int number) {
        return kv_findSerialDeviceByPci(&place, number, node.data(), node.size());
    };
    const auto giveUp = [&](const char* reason) {
        problems.report("/sys/bus/pci/devices/0000:" + addressOf(card), reason);
        ports.push_back({.pciAddress = addressOf(card)});
    };
    try {
        int number = 0;
        int result = find(number);
        for (; result == 0; result = find(number)) {
            Port port{.number = number++, .pciAddress = addressOf(card)};
            setNode(port, node.data(), problems);
            ports.push_back(port);
        }
        if (number == 0 || result != kNoSuchPort) {
            giveUp(kCardFailures.at(static_cast<std::size_t>(-1 - result)));
        }
    } catch (const std::out_of_range&) {
        giveUp("the number in a port's name is too large");
    }
}

void addPortsOfCards(Nodes nodes, std::vector<Port>& ports, Problems& problems) {
    for (const kv_topo_node& node : nodes) {
        const uint32_t deviceClass = node.classcode >> 8;
        const bool isCard = deviceClass == kSerialController || deviceClass == kMultiportSerialController;
        if (isCard && node.func == 0) {
            addCardPorts(node, ports, problems);
        }
        addPortsOfCards(childrenOf(node), ports, problems);
    }
}

std::vector<Port> findPorts(Problems& problems) {
    std::vector<Port> ports;
    for (const Uart& uart : kUarts) {
        ports.push_back(onboardPort(uart, problems));
    }
    const kv::OwnedTopology topology;
    if (const auto topLevel = topLevelOf(topology, problems)) {
        addPortsOfCards(*topLevel, ports, problems);
    }
    return ports;
}

std::string uartText(uint32_t address) {
    return formatString("0x%08x", address);
}

Json toJson(const std::vector<Port>& ports) {
    Json list = Json::array();
    for (const Port& port : ports) {
        list.push_back({{"port", orNull(port.number)},
                        {"uart", port.uart ? Json(uartText(*port.uart)) : Json(nullptr)},
                        {"pciAddress", orNull(port.pciAddress)},
                        {"node", orNull(port.node)},
                        {"state", port.state}});
    }
    return list;
}

void print(const std::vector<Port>& ports) {
    Rows rows = {{"hardware", "port", "node", "state"}};
    for (const Port& port : ports) {
        rows.push_back({port.uart ? "UART " + uartText(*port.uart) : "PCI " + *port.pciAddress,
                        port.number ? std::to_string(*port.number) : "-", port.node.value_or("-"),
                        port.state});
    }
    printColumns(rows);
}

}  // namespace

void addSerialCommand(command_line::Program& program, Problems& problems) {
    command_line::Command& command =
        program.addCommand("serial", "Show the onboard serial ports and those of PCI cards; opens none");
    const auto asJson = addJsonFlag(command);
    command.setFooter("Onboard ports are numbered from 1, as they are labelled, those of a card from 0.");
    command.setAction([asJson, &problems] {
        const std::vector<Port> ports = findPorts(problems);
        *asJson ? printJson(toJson(ports)) : print(ports);
        return problems.status();
    });
}

}  // namespace kvctl
