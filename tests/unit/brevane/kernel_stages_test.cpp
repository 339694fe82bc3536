#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brevane/Kernel.h>
#include <brevane/Service.h>
#include <brevane/start_callbacks.h>

using brevane::Kernel;
using brevane::Model;
using brevane::RunReport;
using brevane::Service;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Events = std::vector<std::string>;

Events events;
std::string failingEvent;
Kernel* runningKernel = nullptr;

void happen(const std::string& event) {
    events.push_back(event);
    if (event == failingEvent) {
        throw std::runtime_error("valve stuck");
    }
}

class RecordingService : public Service {
 public:
    explicit RecordingService(std::string name) : name_(std::move(name)) { happen(name_ + " created"); }
    ~RecordingService() override { events.push_back(name_ + " destroyed"); }
    void initialize() override { happen(name_ + " initialized"); }
    void start() override { happen(name_ + " started"); }
    void stop() override { happen(name_ + " stopped"); }

 private:
    std::string name_;
};

template <char Name>
std::unique_ptr<Service> make() {
    return std::make_unique<RecordingService>(std::string(1, Name));
}

void registerCallback(const char* event, int priority) {
    static std::vector<std::unique_ptr<std::string>> kept;
    kept.push_back(std::make_unique<std::string>(event));
    registerCB_C([](void* text) { happen(*static_cast<std::string*>(text)); }, kept.back().get(), priority);
}

/** Takes two steps. */
Model recordingModel() {
    Model model;
    model.name = "pump";
    model.initialize = [] { happen("model initialized"); };
    model.step = [] {
        if (events.back() == "step 1") {
            runningKernel->stop();
            happen("step 2");
        } else {
            happen("step 1");
        }
    };
    model.terminate = [] { happen("model terminated"); };
    return model;
}

RunReport runRecordingModel() {
    events.clear();
    Kernel kernel(recordingModel());
    runningKernel = &kernel;
    return kernel.run();
}

class KernelStages : public testing::Test {
 protected:
    static void SetUpTestSuite() {
        registerCallback("late", 5);
        registerCallback("early", -1);
        registerCallback("late too", 5);
        registerCB_C(nullptr, nullptr, 0);
        Service::doRegister("A", make<'A'>);
        Service::doRegister("B", make<'B'>);
    }

    const Events goodRun_ = {
        "A created",   "B created",  "A initialized", "B initialized", "model initialized",
        "A started",   "B started",  "early",         "late",          "late too",
        "step 1",      "step 2",     "B stopped",     "A stopped",     "model terminated",
        "B destroyed", "A destroyed"};
};

TEST_F(KernelStages, FollowEachOtherInOrderInEveryRun) {
    const RunReport report = runRecordingModel();
    EXPECT_EQ(events, goodRun_);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.steps, 2U);

    EXPECT_FALSE(Service::doRegister("A", make<'C'>)) << "the name is taken";
    EXPECT_FALSE(Service::doRegister("D", nullptr));
    runRecordingModel();
    EXPECT_EQ(events, goodRun_);
}

TEST_F(KernelStages, AreUndoneAsFarAsTheyWereReached) {
    struct Failure {
        std::string at;
        Events afterwards;
        std::string error;
    };
    const Events destroyed = {"B destroyed", "A destroyed"};
    const Events terminated = {"model terminated", "B destroyed", "A destroyed"};
    const Events firstStopped = {"A stopped", "model terminated", "B destroyed", "A destroyed"};
    const Events bothStopped = {"B stopped", "A stopped", "model terminated", "B destroyed", "A destroyed"};
    const Failure failures[] = {
        {"B created", {"A destroyed"}, "service B failed to be created: valve stuck"},
        {"A initialized", destroyed, "service A failed to initialize: valve stuck"},
        {"model initialized", terminated, "valve stuck"},
        {"B started", firstStopped, "service B failed to start: valve stuck"},
        {"late", bothStopped, "valve stuck"},
        {"step 1", bothStopped, "valve stuck"},
        {"B stopped", firstStopped, "service B failed to stop: valve stuck"},
        {"model terminated", destroyed, "valve stuck"},
    };
    for (const Failure& failure : failures) {
        SCOPED_TRACE(failure.at);
        failingEvent = failure.at;
        EXPECT_EQ(runRecordingModel().error, failure.error);

        auto expected = goodRun_;
        expected.erase(std::find(expected.begin(), expected.end(), failure.at) + 1, expected.end());
        expected.insert(expected.end(), failure.afterwards.begin(), failure.afterwards.end());
        EXPECT_EQ(events, expected);
    }
}

TEST(Kernel, EndsTheRunWithTheModelsFirstError) {
    static const char* status = nullptr;
    static int steps = 0;
    static int terminated = 0;
    Model model;
    model.errorStatus = [] { return status; };
    model.step = [] {
        if (++steps == 3) {
            status = "tank is empty";
        }
    };
    model.terminate = [] {
        ++terminated;
        throw std::runtime_error("drain blocked, too");
    };
    const RunReport failedStep = Kernel(model).run();
    EXPECT_EQ(failedStep.error, "tank is empty");
    EXPECT_EQ(failedStep.steps, 3U);
    EXPECT_EQ(terminated, 1);

    EXPECT_EQ(Kernel(model).run().error, "tank is empty");
    EXPECT_EQ(steps, 3) << "no step after an error in the initialisation";
    EXPECT_EQ(terminated, 2);
}

TEST(Kernel, RefusesWhatItCannotRun) {
    static std::string innerError;
    Model model;
    EXPECT_THAT(Kernel(model).run().error, HasSubstr("no step function"));
    model.step = [] {
        runningKernel->stop();
        innerError = Kernel(recordingModel()).run().error;
    };
    model.basePeriod = std::chrono::nanoseconds(0);
    EXPECT_THAT(Kernel(model).run().error, HasSubstr("base period"));

    model.basePeriod = std::chrono::milliseconds(1);
    Kernel kernel(model);
    runningKernel = &kernel;
    EXPECT_EQ(kernel.run().error, "");
    EXPECT_THAT(innerError, HasSubstr("another model is running"));
    EXPECT_THAT(events, IsEmpty()) << "the refused model wasn't touched";
    EXPECT_THAT(kernel.run().error, HasSubstr("has run its model already"));
}

}  // namespace
