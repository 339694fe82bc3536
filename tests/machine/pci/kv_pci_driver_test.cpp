#include <string>

#include "pci_machine.h"

using kv::test::info;
using kvsim::Machine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kDrivers = "/sys/bus/pci/drivers/";

class DriverBinding : public kv::test::PciMachine {
 protected:
    void SetUp() override {
        addBridge(0, 1, 0x1a);
        addBoard(0x1a, 0x0b).driver("analog");
        addBoard(0x1a, 0x0c);
        machine_.addPciDriver("uio_kelvaro");
        ENTER_MACHINE(machine_);
        bound_.bus = free_.bus = 0x1a;
        bound_.slot = 0x0b;
        free_.slot = 0x0c;
    }

    static std::string written(const std::string& file) { return Machine::read(kDrivers + file); }

    kv_PCIDevice bound_{};
    kv_PCIDevice free_{};
};

TEST_F(DriverBinding, WritesTheBoardsAddressToTheKernel) {
    EXPECT_EQ(kv_pci_unbindDriver(&bound_), 0);
    EXPECT_EQ(written("analog/unbind"), "0000:1a:0b.0");
    EXPECT_EQ(kv_pci_bindDriver(&free_, "uio_kelvaro"), 0);
    EXPECT_EQ(written("uio_kelvaro/bind"), "0000:1a:0c.0");
    EXPECT_EQ(kv_pci_probeDriver(&free_), 0);
    EXPECT_EQ(Machine::read("/sys/bus/pci/drivers_probe"), "0000:1a:0c.0");
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(DriverBinding, TakesTheBoardFromItsFormerDriverFirst) {
    EXPECT_EQ(kv_pci_bindDriver(&bound_, "uio_kelvaro"), 0);
    EXPECT_EQ(written("analog/unbind"), "0000:1a:0b.0");
    EXPECT_EQ(written("uio_kelvaro/bind"), "0000:1a:0b.0");
}

TEST_F(DriverBinding, BindsAlsoWhereUnbindingFailsAndUnbindsAlsoWhereBindingFails) {
    EXPECT_EQ(kv_pci_bindDriver(&bound_, "no_such_driver"), -1);
    EXPECT_EQ(written("analog/unbind"), "0000:1a:0b.0");
    Machine::replaceByFolder(std::string(kDrivers) + "analog/unbind");
    EXPECT_EQ(kv_pci_bindDriver(&bound_, "uio_kelvaro"), 0);
    EXPECT_EQ(written("uio_kelvaro/bind"), "0000:1a:0b.0");
}

TEST_F(DriverBinding, UnbindsABoardWithoutADriverInSilence) {
    EXPECT_EQ(kv_pci_unbindDriver(&free_), 0);
    EXPECT_THAT(log_.take(), IsEmpty());
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
    Machine::remove("/sys/bus/pci/drivers_probe");
    EXPECT_EQ(kv_pci_probeDriver(&free_), -1);
    EXPECT_THAT(log_.take(),
                ElementsAre(info("Could not open probe file /sys/bus/pci/drivers_probe for writing.")));
}

TEST_F(DriverBinding, RefusesANullDeviceByItsOwnName) {
    EXPECT_EQ(kv_pci_unbindDriver(nullptr), -1);
    EXPECT_EQ(kv_pci_bindDriver(nullptr, "uio_kelvaro"), -1);
    EXPECT_EQ(kv_pci_probeDriver(nullptr), -1);
    EXPECT_THAT(log_.take(), ElementsAre(info("kv_pci_unbindDriver: device is null."),
                                         info("kv_pci_bindDriver: device is null."),
                                         info("kv_pci_probeDriver: device is null.")));
}

}  // namespace
