#include <cstdlib>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kv/diagnostics.h>

#include "support/log_capture.h"
#include "unit/registry/registry_test.h"

using kv::test::debug;
using kv::test::LogCapture;
using kv::test::trace;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using ModuleRegistry = kv::test::RegistryTest;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};
using OwnedModuleList = std::unique_ptr<kv_mod_info*, Free>;

TEST_F(ModuleRegistry, GrowsToExactlyTheIndexNeededAndSaysSo) {
    LogCapture log;
    const kv_mod_info* module = kv_module_register(5, 3);
    ASSERT_NE(module, nullptr);
    EXPECT_THAT(
        log.takeWithoutAddresses(),
        ElementsAre(debug("Register module [type 5, id 3]"), trace("Creating module registry"),
                    trace("Module registry: ADDRESS"), trace("Enlarge registry from 0 to 6 module types"),
                    trace("New module type list: ADDRESS"),
                    trace("Creating new module list struct for type 5"),
                    trace("New module list struct : ADDRESS"),
                    trace("Enlarge module list from 0 to 4 modules"), trace("New module list: ADDRESS")));
    EXPECT_EQ(module->type, 5U);
    EXPECT_EQ(module->id, 3U);
    EXPECT_FALSE(module->is_initiator);
    EXPECT_EQ(module->pci_bus, 0);
    EXPECT_EQ(module->pci_slot, 0);
    EXPECT_EQ(module->custom_data, nullptr);
    EXPECT_EQ(module->block_registry, nullptr);

    kv_module_register(2, 0);
    EXPECT_THAT(log.takeWithoutAddresses(), ElementsAre(debug("Register module [type 2, id 0]"),
                                                        trace("Creating new module list struct for type 2"),
                                                        trace("New module list struct : ADDRESS"),
                                                        trace("Enlarge module list from 0 to 1 modules"),
                                                        trace("New module list: ADDRESS")));
    EXPECT_EQ(module_registry->Length, 6U);
    EXPECT_EQ(module_registry->nTypes, 2U);
    EXPECT_EQ(module_registry->nModules, 2U);
    EXPECT_EQ(module_registry->types[5]->Length, 4U);

    EXPECT_EQ(kv_module_get_single(5, 3), module);
    EXPECT_EQ(kv_module_get_single(5, 2), nullptr) << "a hole";
    EXPECT_EQ(kv_module_get_single(5, 4), nullptr) << "past the modules";
    EXPECT_EQ(kv_module_get_single(6, 0), nullptr) << "past the types";
    EXPECT_EQ(kv_module_get_single(4, 0), nullptr) << "a type without modules";
    EXPECT_THAT(log.take(), IsEmpty()) << "look-ups are silent";
}

TEST_F(ModuleRegistry, RefusesADuplicateAndLeavesTheFirstAlone) {
    kv_mod_info* first = kv_module_register(1, 1);
    first->pci_bus = 7;
    LogCapture log;
    EXPECT_EQ(kv_module_register(1, 1), nullptr);
    EXPECT_STREQ(pKvErrorStr, "Module already registered\n");
    EXPECT_THAT(log.take(), ElementsAre(debug("Register module [type 1, id 1]")));
    EXPECT_EQ(kv_module_get_single(1, 1), first);
    EXPECT_EQ(first->pci_bus, 7);
    EXPECT_EQ(module_registry->nModules, 1U);
}

TEST_F(ModuleRegistry, ListsTheModulesOfATypeInAscendingIdOrder) {
    kv_mod_info* nine = kv_module_register(2, 9);
    kv_mod_info* one = kv_module_register(2, 1);
    kv_mod_info* four = kv_module_register(2, 4);

    kv_mod_list list = nullptr;
    ASSERT_EQ(kv_module_get(&list, 2, -1), 3);
    OwnedModuleList all(list);
    EXPECT_EQ(list[0], one);
    EXPECT_EQ(list[1], four);
    EXPECT_EQ(list[2], nine);

    kv_mod_info* untouched = nullptr;
    list = &untouched;
    EXPECT_EQ(kv_module_get(&list, 1, -1), 0) << "a type without modules";
    EXPECT_EQ(kv_module_get(&list, 3, -5), 0) << "a type past the last";
    EXPECT_EQ(list, &untouched);
}

TEST_F(ModuleRegistry, HandsBackAnArrayForASingleModuleEvenWhereItIsMissing) {
    kv_mod_list list = nullptr;
    EXPECT_EQ(kv_module_get(&list, 2, 4), 0) << "an empty registry is no obstacle for a single module";
    EXPECT_NE(list, nullptr);
    OwnedModuleList missing(list);

    kv_mod_info* module = kv_module_register(2, 4);
    ASSERT_EQ(kv_module_get(&list, 2, 4), 1);
    OwnedModuleList found(list);
    EXPECT_EQ(list[0], module);
}

TEST_F(ModuleRegistry, KeepsTheDriversDataUntouched) {
    kv_mod_info* module = kv_module_register(0, 0);
    void* data = kv_module_alloc_custom_data(module, 64);
    ASSERT_NE(data, nullptr);
    std::unique_ptr<void, Free> owner(data);
    EXPECT_EQ(module->custom_data, data);
    EXPECT_EQ(kv_module_get_custom_data(0, 0), data);
    EXPECT_EQ(kv_module_get_custom_data(0, 1), nullptr);
    kv_module_unregister(0, 0);
    static_cast<char*>(data)[63] = 1;  // still the driver's after its module has gone
}

TEST_F(ModuleRegistry, DisappearsWithItsLastModuleAndStartsAfresh) {
    kv_module_register(3, 0);
    kv_module_register(3, 2);
    kv_module_register(1, 0);
    LogCapture log;

    kv_module_unregister(3, 1);
    EXPECT_THAT(log.take(), ElementsAre(debug("Unregister module [type 3, id 1]"),
                                        debug("No module registered for: [type 3, id 1]")));
    kv_module_unregister(3, 0);
    EXPECT_THAT(log.take(), ElementsAre(debug("Unregister module [type 3, id 0]")));
    kv_module_unregister(3, 2);
    EXPECT_THAT(log.take(), ElementsAre(debug("Unregister module [type 3, id 2]"),
                                        debug("Cleaning up module list for type 3")));
    EXPECT_EQ(module_registry->nTypes, 1U);
    EXPECT_EQ(module_registry->nModules, 1U);
    kv_module_unregister(1, 0);
    EXPECT_THAT(log.take(), ElementsAre(debug("Unregister module [type 1, id 0]"),
                                        debug("Cleaning up module list for type 1"),
                                        debug("Cleaning up module registry base")));
    EXPECT_EQ(module_registry, nullptr);

    ASSERT_NE(kv_module_register(0, 0), nullptr);
    EXPECT_EQ(module_registry->Length, 1U);
}

}  // namespace
