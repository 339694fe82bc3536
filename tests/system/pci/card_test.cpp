// Cards that the kernel's own drivers serve: where their ports and interfaces are.

#include <kv/network.h>
#include <kv/serial.h>

#include "pci_kernel.h"

using kv::test::Board;
using kv::test::interfaceOf;
using kv::test::KernelFunction;
using kv::test::readText;
using testing::SizeIs;

namespace {

TEST(SerialCard, HasItsPortsInTheOrderOfTheirAddresses) {
    constexpr uint32_t kPortSize = 8;
    const KernelFunction card = KernelFunction::all(Board::kSerialCard).at(0);
    ASSERT_THAT(card.devices("tty"), SizeIs(4));
    kv_PCIDevice record = recordOf(card);
    std::array<char, 32> node{};
    for (int port = 0; port < 4; ++port) {
        ASSERT_EQ(kv_findSerialDeviceByPci(&record, port, node.data(), node.size()), 0) << "port " << port;
        const std::filesystem::path path = node.data();
        EXPECT_TRUE(std::filesystem::is_character_file(path)) << path;
        const std::string address = readText("/sys/class/tty" / path.filename() / "port");
        EXPECT_EQ(std::stoul(address, nullptr, 0),
                  record.BaseAddress[0] + kPortSize * static_cast<uint32_t>(port))
            << path;
    }
    EXPECT_EQ(kv_findSerialDeviceByPci(&record, 4, node.data(), node.size()), -3);

    kv_PCIDevice controller = recordOf(KernelFunction::all(Board::kController).at(0));
    EXPECT_EQ(kv_findSerialDeviceByPci(&controller, 0, node.data(), node.size()), -3);
    controller.slot = 31;
    EXPECT_EQ(kv_findSerialDeviceByPci(&controller, 0, node.data(), node.size()), -1);
}

TEST(EthernetTranslation, NumbersThePortsOfAModuleBehindASwitch) {
    const char* kFile = "/usr/kelvaro/sysinfo/ethTranslateFile.txt";
    // In bus order: an onboard pair, the module, two that have no entry but count, two cards without a
    // driver, and another onboard one.
    const char* labels[] = {"Hostlink", "ETH1",  "NMF_1Port4", "NMF_1Port3", "NMF_1Port2", "NMF_1Port1",
                            nullptr,    nullptr, "ETH2",       "ETH3",       "Onboard"};
    std::vector<KernelFunction> controllers;
    for (const KernelFunction& each : KernelFunction::all()) {
        if (each.number("class") == 0x020000) {
            controllers.push_back(each);
        }
    }
    ASSERT_EQ(controllers.size(), std::size(labels));
    std::string expected;
    for (std::size_t i = 0; i < controllers.size(); ++i) {
        const std::string interface = interfaceOf(controllers[i].path("."));
        EXPECT_EQ(interface == "", controllers[i].number("device") == deviceOf(Board::kSmallBar))
            << controllers[i];
        if (labels[i] != nullptr) {
            expected += kv::utils::formatString("%s:%zu:%s;", interface.c_str(), i, labels[i]);
        }
    }
    std::filesystem::create_directories("/usr/kelvaro");  // the installation's
    ASSERT_EQ(kv_translateEthernetInterfaces(), 0);
    EXPECT_EQ(readText(kFile), expected);
}

}  // namespace
