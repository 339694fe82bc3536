// Boards handed from driver to driver by a real kernel.

#include "pci_kernel.h"

using kv::test::Board;
using kv::test::info;
using kv::test::KernelFunction;
using kv::test::writeText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char* kNewId = "/sys/bus/pci/drivers/uio_kelvaro/new_id";
constexpr const char* kRemoveId = "/sys/bus/pci/drivers/uio_kelvaro/remove_id";

class DriverBinding : public testing::Test {
 protected:
    DriverBinding() : board_(KernelFunction::all(Board::kController).back()), record_(recordOf(board_)) {}
    void SetUp() override {
        ASSERT_EQ(board_.driver(), "e1000e");
        (void)log_.take();
    }
    void TearDown() override {
        (void)writeText(kRemoveId, "8086 10d3");
        (void)kv_pci_bindDriver(&record_, "e1000e");
        EXPECT_EQ(board_.driver(), "e1000e");
    }

    const KernelFunction board_;
    kv_PCIDevice record_;
    kv::test::LogCapture log_;
};

TEST_F(DriverBinding, MovesABoardToAnotherDriverAndBack) {
    ASSERT_EQ(writeText(kNewId, "8086 10d3"), 0);
    EXPECT_EQ(kv_pci_bindDriver(&record_, "uio_kelvaro"), 0);
    EXPECT_EQ(board_.driver(), "uio_kelvaro");
    EXPECT_THAT(board_.devices("net"), IsEmpty());
    EXPECT_THAT(board_.devices("uio"), SizeIs(1));
    EXPECT_EQ(kv_pci_probeDriver(&record_), 0);
    EXPECT_EQ(board_.driver(), "uio_kelvaro") << "who has a driver keeps it";

    EXPECT_EQ(kv_pci_bindDriver(&record_, "e1000e"), 0);
    EXPECT_EQ(board_.driver(), "e1000e");
    EXPECT_THAT(board_.devices("net"), SizeIs(1));
    EXPECT_THAT(board_.devices("uio"), IsEmpty());

    EXPECT_EQ(kv_pci_unbindDriver(&record_), 0);
    EXPECT_EQ(kv_pci_unbindDriver(&record_), 0) << "nobody holds it";
    EXPECT_EQ(board_.driver(), "");
    EXPECT_EQ(board_.text("enable"), "0");
    EXPECT_EQ(kv_pci_probeDriver(&record_), 0);
    EXPECT_NE(board_.driver(), "") << "the kernel has chosen one";
    EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(DriverBinding, IsAnsweredByTheKernelWithTheseErrors) {
    const std::string free = KernelFunction::all(Board::kSmallBar).at(0).name();
    const struct {
        const char* file;
        std::string text;
        int error;
    } steps[] = {
        {"drivers/e1000e/bind", board_.name(), EBUSY},
        {"drivers/e1000e/bind", free, ENODEV},
        {"drivers/e1000e/unbind", free, ENODEV},
        {"drivers/e1000e/bind", "0000:00:1f.0", ENODEV},
        {"drivers_probe", "0000:00:1f.0", ENODEV},
        {"drivers_probe", board_.name(), 0},
        {"drivers_probe", free, 0},
        {"drivers/uio_kelvaro/new_id", "8086", EINVAL},
        {"drivers/uio_kelvaro/new_id", "8086 10d3 7777    1", 0},
        {"drivers/uio_kelvaro/new_id", "8086 10d3", 0},
        {"drivers/uio_kelvaro/new_id", "8086 10d3", EEXIST},
        {"drivers/uio_kelvaro/remove_id", "8086 10d3", 0},
        {"drivers/uio_kelvaro/remove_id", "8086 10d3", 0},
        {"drivers/uio_kelvaro/remove_id", "8086 10d3", ENODEV},
        {"drivers/uio_kelvaro/bind", board_.name(), ENODEV},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(writeText(std::filesystem::path("/sys/bus/pci") / step.file, step.text), step.error)
            << step.text << " to " << step.file;
        EXPECT_EQ(board_.driver(), "e1000e");
    }
}

TEST_F(DriverBinding, LeavesABoardFreeThatTheDriverDoesNotKnow) {
    EXPECT_EQ(kv_pci_bindDriver(&record_, "uio_kelvaro"), 0);
    EXPECT_EQ(board_.driver(), "");
    EXPECT_EQ(kv_pci_bindDriver(&record_, "no_such_driver"), -1);
    EXPECT_THAT(log_.take(), ElementsAre(info("Could not open bind file "
                                              "/sys/bus/pci/drivers/no_such_driver/bind for writing.")));
}

TEST_F(DriverBinding, KeepsABoardEnabledForWhoHasMappedIt) {
    ASSERT_EQ(kv_pci_unbindDriver(&record_), 0);
    ASSERT_NE(kv_mapMemory(&record_, 0), nullptr);
    EXPECT_EQ(board_.text("enable"), "1");
    ASSERT_EQ(writeText(kNewId, "8086 10d3"), 0) << "the driver takes it at once";
    EXPECT_EQ(board_.driver(), "uio_kelvaro");
    EXPECT_EQ(board_.text("enable"), "2") << "the kernel counts";
    EXPECT_NE(kv_mapMemory(&record_, 0), nullptr) << "the driver has not claimed the BAR";
    EXPECT_EQ(board_.text("enable"), "2");
    EXPECT_EQ(writeText(board_.path("enable"), "0"), EBUSY) << "a driver holds it";
    ASSERT_EQ(kv_pci_unbindDriver(&record_), 0);
    EXPECT_EQ(board_.text("enable"), "1");
    EXPECT_EQ(writeText(board_.path("enable"), "0"), 0);
    EXPECT_EQ(writeText(board_.path("enable"), "0"), EIO);
}

}  // namespace
