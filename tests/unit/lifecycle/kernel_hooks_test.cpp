#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Kernel.h>
#include <brevane/Service.h>
#include <brevane/start_callbacks.h>
#include <kv/lifecycle.h>

using brevane::Kernel;
using testing::ElementsAre;

namespace {

std::vector<std::string> events;

void note(const std::string& event) {
    events.push_back(event + (kv_is_early_init() != 0 ? ", early" : ""));
}

/** Runs a model that ends after its first step. */
std::string runModel() {
    events.clear();
    Kernel kernel({.name = "pump", .initialize = [] { note("model"); }, .step = [] {}});
    kernel.setStopTime(std::chrono::nanoseconds(1));
    return kernel.run().error;
}

TEST(EarlyInit, RunsTheLastFunctionBeforeTheModelAndThenIsOver) {
    static int blocks = 0;
    EXPECT_EQ(kv_is_early_init(), 1);
    EXPECT_EQ(kv_early_init_get_blkInfo2(), nullptr);
    kv_early_init_set_blkInfo2(&blocks);
    kv_register_early_init_function([] { note("replaced"); });
    kv_register_early_init_function([] {
        note("early init");
        EXPECT_EQ(kv_early_init_get_blkInfo2(), &blocks);
    });
    EXPECT_EQ(runModel(), "");
    EXPECT_THAT(events, ElementsAre("early init, early", "model"));
    EXPECT_EQ(kv_is_early_init(), 0);

    EXPECT_EQ(runModel(), "");
    EXPECT_THAT(events, ElementsAre("early init, early", "model")) << "each run has its early initialisation";
    kv_early_init_set_blkInfo2(nullptr);
    EXPECT_EQ(kv_early_init_get_blkInfo2(), nullptr);
}

TEST(EarlyInit, LastsWhereNoFunctionEndsIt) {
    EXPECT_EQ(runModel(), "");
    EXPECT_THAT(events, ElementsAre("model, early"));
    EXPECT_EQ(kv_is_early_init(), 1);
}

TEST(StartCallback, ReachesTheKernelWithItsArgumentAndPriority) {
    const auto say = [](void* text) { note(static_cast<const char*>(text)); };
    char four[] = "4";
    char five[] = "5";
    char six[] = "6";
    kv_register_early_init_function([] {});
    registerCB_C(say, six, 6);
    kv_add_start_callback(say, five, 5);
    registerCB_C(say, four, 4);
    EXPECT_EQ(runModel(), "");
    EXPECT_THAT(events, ElementsAre("model", "4", "5", "6"));
}

TEST(KernelServices, HaveTheNamesThatOthersSeeThemUnder) {
    const auto none = [] { return std::unique_ptr<brevane::Service>(); };
    EXPECT_FALSE(brevane::Service::doRegister("KelvaroService", none)) << "taken";
    EXPECT_FALSE(brevane::Service::doRegister("KelvaroSyncService", none)) << "taken";
    EXPECT_TRUE(brevane::Service::doRegister("PumpService", none));
}

TEST(ModelLoad, GoesByTwoNames) {
    EXPECT_EQ(kv_isFirstModelLoad, kv_isModelInit);
    EXPECT_EQ(kv_isModelInit(), 0) << "before it is decided";
}

}  // namespace
