#include <filesystem>
#include <string>
#include <unistd.h>

#include "pci_machine.h"

using kv::test::info;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kDrivers = "/sys/bus/pci/drivers/";
constexpr uint16_t kOtherDevice = 0x0200;

/** "analog" holds a board, "handover" would take it too, and another one that nobody holds. */
class DriverBinding : public kv::test::PciMachine {
 protected:
    void SetUp() override {
        ::alarm(20);
        addBridge(0, 1, 0x1a);
        addBoard(0x1a, 0x0b).driver("analog");
        addBoard(0x1a, 0x0c, kOtherDevice);
        machine_.addPciDriver("handover",
                              {{kv::test::kVendor, kv::test::kDevice}, {kv::test::kVendor, kOtherDevice}});
        ENTER_MACHINE(machine_);
        bound_.bus = free_.bus = 0x1a;
        bound_.slot = 0x0b;
        free_.slot = 0x0c;
    }

    /** The driver that holds a board; empty where none does. */
    [[nodiscard]] std::string driverOf(const kv_PCIDevice& board) const {
        const std::string link =
            machine_.pci(static_cast<uint8_t>(board.bus), static_cast<uint8_t>(board.slot)).path() +
            "/driver";
        return std::filesystem::exists(link) ? std::filesystem::canonical(link).filename().string() : "";
    }

    kv_PCIDevice bound_{};
    kv_PCIDevice free_{};
};

TEST_F(DriverBinding, MovesABoardFromDriverToDriver) {
    EXPECT_EQ(kv_pci_bindDriver(&bound_, "handover"), 0);
    EXPECT_EQ(driverOf(bound_), "handover");
    EXPECT_EQ(kv_pci_probeDriver(&bound_), 0);
    EXPECT_EQ(driverOf(bound_), "handover") << "who has a driver keeps it";
    EXPECT_EQ(kv_pci_unbindDriver(&bound_), 0);
    EXPECT_EQ(driverOf(bound_), "");
    EXPECT_EQ(kv_pci_unbindDriver(&bound_), 0) << "no driver is bound";
    EXPECT_EQ(kv_pci_probeDriver(&bound_), 0);
    EXPECT_EQ(driverOf(bound_), "analog");
    EXPECT_EQ(kv_pci_bindDriver(&free_, "handover"), 0);
    EXPECT_EQ(driverOf(free_), "handover");
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(DriverBinding, UnbindsAlsoWhereBindingFails) {
    EXPECT_EQ(kv_pci_bindDriver(&bound_, "no_such_driver"), -1);
    EXPECT_EQ(driverOf(bound_), "");
}

TEST_F(DriverBinding, DoesNotLookAtWhatTheKernelMakesOfIt) {
    EXPECT_EQ(kv_pci_bindDriver(&free_, "analog"), 0);
    EXPECT_EQ(driverOf(free_), "") << "the driver does not know the board";
    Machine::replaceByFolder(std::string(kDrivers) + "analog/unbind");
    EXPECT_EQ(kv_pci_bindDriver(&bound_, "handover"), 0);
    EXPECT_EQ(driverOf(bound_), "analog") << "it could not be unbound";
}

TEST_F(DriverBinding, ReportsFilesThatCannotBeOpened) {
    Machine::replaceByFolder(std::string(kDrivers) + "analog/unbind");
    EXPECT_EQ(kv_pci_unbindDriver(&bound_), -1);
    EXPECT_THAT(log_.take(), ElementsAre(info("kv_pci_unbindDriver: Could not open unbind file "
                                              "/sys/bus/pci/devices/0000:1a:0b.0/driver/unbind for writing: "
                                              "Is a directory")));
    EXPECT_EQ(kv_pci_bindDriver(&free_, "no_such_driver"), -1);
    EXPECT_THAT(
        log_.take(),
        ElementsAre(info("Could not open bind file /sys/bus/pci/drivers/no_such_driver/bind for writing.")));
    const std::string longest(255, 'd');
    const std::string bind = kDrivers + longest + "/bind";
    Machine::write(bind, "");
    for (const std::string& name : {longest + "x", "analog/../" + longest}) {
        EXPECT_EQ(kv_pci_bindDriver(&free_, name.c_str()), -1);
        EXPECT_EQ(Machine::read(bind), "") << "a name that begins or ends like another driver's";
        EXPECT_THAT(log_.take(), ElementsAre(info("Could not open bind file " + std::string(kDrivers) + name +
                                                  "/bind for writing.")));
    }
    EXPECT_EQ(kv_pci_bindDriver(&free_, longest.c_str()), 0);
    EXPECT_EQ(Machine::read(bind), "0000:1a:0c.0");
    Machine::remove("/sys/bus/pci/drivers_probe");
    EXPECT_EQ(kv_pci_probeDriver(&free_), -1);
    EXPECT_THAT(log_.take(),
                ElementsAre(info("Could not open probe file /sys/bus/pci/drivers_probe for writing.")));
}

TEST_F(DriverBinding, RefusesANullDeviceByItsOwnName) {
    EXPECT_EQ(kv_pci_unbindDriver(nullptr), -1);
    EXPECT_EQ(kv_pci_bindDriver(nullptr, "handover"), -1);
    EXPECT_EQ(kv_pci_probeDriver(nullptr), -1);
    EXPECT_THAT(log_.take(), ElementsAre(info("kv_pci_unbindDriver: device is null."),
                                         info("kv_pci_bindDriver: device is null."),
                                         info("kv_pci_probeDriver: device is null.")));
}

}  // namespace
