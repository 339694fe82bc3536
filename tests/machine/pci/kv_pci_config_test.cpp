#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "pci_machine.h"

using kv::test::error;
using kv::test::info;
using kv::test::kCommand;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Configuration : public kv::test::PciMachine {
 protected:
    void SetUp() override {
        addBridge(0, 1, 2);
        addBoard(2, 3).bar(0, 0xA0000000, 0x1000).bar(5, 0xA0001000, 0x1000);
        ENTER_MACHINE(machine_);
        board_.bus = 2;
        board_.slot = 3;
        absent_.bus = 2;
        absent_.slot = 4;
    }

    kv_PCIDevice board_{};
    kv_PCIDevice absent_{};
};

TEST_F(Configuration, SurvivesAResetThroughBackupAndRestore) {
    const auto config = machine_.pci(2, 3);
    config.setConfig32(0x3C, 0x0A0B010C);
    config.setConfig16(kCommand, 0xFF41);
    uint32_t saved[8];
    kvPCI_backupPCIConfig(&board_, saved);
    EXPECT_THAT(saved, ElementsAre(0xA0000000U, 0U, 0U, 0U, 0U, 0xA0001000U, 0x0A0B010CU, 0xFF41U));

    for (unsigned offset = 0; offset < 0x40; offset += 4) {
        config.setConfig32(offset, offset == 0 ? config.config32(0) : 0x5A5A5A5A);
    }
    kvPCI_restorePCIConfig(&board_, saved);
    EXPECT_EQ(config.config32(0x10), 0xA0000000U);
    EXPECT_EQ(config.config32(0x14), 0U);
    EXPECT_EQ(config.config32(0x24), 0xA0001000U);
    EXPECT_EQ(config.config32(0x3C), 0x0A0B010CU);
    EXPECT_EQ(config.config16(kCommand), 0xFF06) << "memory space and bus mastering on, I/O space off";
    EXPECT_EQ(config.config16(0x06), 0x5A5A) << "the status register is not written";
    EXPECT_EQ(config.config32(0x2C), 0x5A5A5A5AU);
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(Configuration, OfAnAbsentBoardIsReportedAndNotTouched) {
    uint32_t saved[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    kvPCI_backupPCIConfig(&absent_, saved);
    EXPECT_THAT(saved, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    machine_.pci(2, 3).setConfig16(0, 0xFFFF);
    kvPCI_backupPCIConfig(&board_, saved);
    EXPECT_THAT(saved, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8)) << "listed, but all ones";
    EXPECT_THAT(log_.take(), ElementsAre(error("PCI header backup: device not found (bus: 2 / slot: 4)"),
                                         error("PCI header backup: device not found (bus: 2 / slot: 3)")));
    kvPCI_restorePCIConfig(&absent_, saved);
    EXPECT_THAT(log_.take(), ElementsAre(error("PCI header restore: device not found (bus: 2 / slot: 4)")));
    kvPCI_printPCIConfig(&absent_);
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(Configuration, ThatCannotBeReadWholeIsNeitherSavedNorRestored) {
    const std::string config = machine_.pci(2, 3).path() + "/config";
    for (const unsigned readableBytes : {0x3CU, 0x10U, 4U, 0U}) {
        std::filesystem::resize_file(config, readableBytes);
        const std::string before = kvsim::Machine::read(config);
        uint32_t saved[8] = {};
        kvPCI_backupPCIConfig(&board_, saved);
        EXPECT_EQ(saved[7], 0xFFFFFFFFU) << readableBytes;
        kvPCI_restorePCIConfig(&board_, saved);
        EXPECT_EQ(kvsim::Machine::read(config), before) << readableBytes;
        EXPECT_THAT(log_.take(),
                    ElementsAre(error("PCI header backup: device not found (bus: 2 / slot: 3)"),
                                error("PCI header restore: device not found (bus: 2 / slot: 3)")));
    }
}

TEST_F(Configuration, IsPrintedAsTheStandardHeader) {
    kvPCI_printPCIConfig(&board_);
    const auto records = log_.take();
    ASSERT_EQ(records.size(), 16U);
    EXPECT_EQ(records[0], info("config[0x0] = 0x1001b5a"));
    EXPECT_EQ(records[4], info("config[0x10] = 0xa0000000"));
    EXPECT_EQ(records[15].text.substr(0, 17), "KV: config[0x3c] ");
}

TEST_F(Configuration, IsOpenedForTheCallerToReadAndWrite) {
    const int file = kv_pci_openPciConfig(&board_, O_RDWR);
    ASSERT_GE(file, 0);
    uint16_t vendor = 0;
    EXPECT_EQ(pread(file, &vendor, sizeof vendor, 0), 2);
    EXPECT_EQ(vendor, kv::test::kVendor);
    EXPECT_EQ(pwrite(file, "\x7f", 1, 0x3C), 1);
    EXPECT_EQ(machine_.pci(2, 3).config8(0x3C), 0x7F);
    close(file);

    EXPECT_EQ(kv_pci_openPciConfig(&absent_, O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
