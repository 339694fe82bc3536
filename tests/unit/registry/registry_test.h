#pragma once

#include <gtest/gtest.h>

#include "registry/kv_module_registry_internal.h"

namespace kv::test {

/** Starts and ends with an empty registry. */
class RegistryTest : public testing::Test {
 protected:
    void SetUp() override { ASSERT_EQ(module_registry, nullptr); }

    void TearDown() override {
        for (uint32_t type = 0; module_registry != nullptr && type < module_registry->Length; ++type) {
            unregisterAll(type);
        }
        EXPECT_EQ(module_registry, nullptr);
    }

 private:
    static void unregisterAll(uint32_t type) {
        const uint32_t ids =
            module_registry->types[type] == nullptr ? 0 : module_registry->types[type]->Length;
        for (uint32_t id = 0; id < ids; ++id) {
            if (kv_module_get_single(type, id) != nullptr) {
                kv_module_unregister(type, id);
            }
        }
    }
};

}  // namespace kv::test
