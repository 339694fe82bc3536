#include <gtest/gtest.h>

#include <kv/io_module.h>

using kv::IoModule;
using kv::IoModuleRegistry;

namespace {

IoModule* findAt(uint32_t bus, uint32_t slot) {
    kv_PCIDevice device = {};
    device.bus = bus;
    device.slot = slot;
    return IoModuleRegistry::find(&device);
}

TEST(IoModuleObject, HasNoTypeAndNoPlaceUntilItIsGivenThem) {
    IoModule module;
    EXPECT_EQ(module.getType(), kv::ioxxx);
    EXPECT_EQ(module.getId(), 0);
    EXPECT_EQ(module.getPciAutosearchPos(), 0);
    EXPECT_EQ(module.getPciInfo(), std::pair(-1, -1));
    EXPECT_EQ(IoModule(kv::io0a18, 3).getPciInfo(), std::pair(-1, -1));

    module.setType(kv::io0d20);
    module.setId(4);
    module.setPciAutosearchPos(2);
    module.setPciInfo({9, 1});
    EXPECT_EQ(module.getType(), kv::io0d20);
    EXPECT_EQ(module.getId(), 4);
    EXPECT_EQ(module.getPciAutosearchPos(), 2);
    EXPECT_EQ(module.getPciInfo(), std::pair(9, 1));
}

TEST(IoModuleList, KeepsTheFirstOfTwoWithTheSameTypeAndId) {
    IoModule first(kv::io0a18, 1);
    IoModule second(kv::io0a18, 1);
    IoModule otherType(kv::io0a28, 1);
    second.setPciInfo({2, 3});
    IoModuleRegistry::add(&first);
    IoModuleRegistry::add(&second);
    IoModuleRegistry::add(&otherType);

    EXPECT_EQ(IoModuleRegistry::find(kv::io0a18, 1), &first);
    EXPECT_EQ(IoModuleRegistry::find(kv::io0a28, 1), &otherType);
    EXPECT_EQ(IoModuleRegistry::find(kv::io0a18, 2), nullptr);
    EXPECT_EQ(findAt(2, 3), nullptr) << "the second was not added";
}

TEST(IoModuleList, FindsTheNewestAtAPlaceAndNoneWithoutAPlace) {
    IoModule older(kv::io0a18, 1);
    IoModule newer(kv::io0a18, 2);
    IoModule nowhere(kv::io0a18, 3);
    older.setPciInfo({2, 3});
    newer.setPciInfo({2, 3});
    for (IoModule* module : {&older, &newer, &nowhere}) {
        IoModuleRegistry::add(module);
    }

    EXPECT_EQ(findAt(2, 3), &newer);
    EXPECT_EQ(findAt(2, 2), nullptr);
    EXPECT_EQ(findAt(3, 3), nullptr);
    EXPECT_EQ(findAt(UINT32_MAX, UINT32_MAX), nullptr) << "bus and slot that would read as -1";
}

TEST(IoModuleList, ForgetsARemovedModuleAndLeavesTheObject) {
    IoModule module(kv::io0d20, 5);
    IoModule neighbour(kv::io0d20, 6);
    IoModuleRegistry::add(&module);
    IoModuleRegistry::add(&neighbour);

    IoModuleRegistry::remove(kv::io0d20, 7);
    EXPECT_EQ(IoModuleRegistry::find(kv::io0d20, 5), &module);
    EXPECT_EQ(IoModuleRegistry::find(kv::io0d20, 6), &neighbour);

    IoModuleRegistry::remove(kv::io0d20, 5);
    EXPECT_EQ(IoModuleRegistry::find(kv::io0d20, 5), nullptr);
    EXPECT_EQ(IoModuleRegistry::find(kv::io0d20, 6), &neighbour);
    EXPECT_EQ(module.getId(), 5);
}

}  // namespace
