#include "model_application.h"

using testing::ElementsAre;

namespace {

constexpr const char* kRegistering = "debug KV: Registering Kelvaro exit handler";
constexpr const char* kRunning = "debug KV: Running Kelvaro exit handlers";

class ExitHandlers : public kv::test::ModelApplication {};

TEST_F(ExitHandlers, RunInOrderOfRegistrationBeforeTheModelIsTagged) {
    setUuid("1234\n");
    kvsim::Machine::write(kv::test::kTagFile, "1234\n");
    EXPECT_THAT(start("init A C B"), ElementsAre(kRegistering, kRegistering, kRegistering, kRunning, "A", "C",
                                                 "B", "debug KV: Tag model run: Found existing checksum file",
                                                 "debug KV: Tag model run: Existing checksum file matches"));
}

TEST_F(ExitHandlers, MayAddAHandlerOrRunTheListThemselves) {
    EXPECT_THAT(start("adding A"),
                ElementsAre(kRegistering, kRegistering, kRunning, kRegistering, "A", "added"));
    EXPECT_THAT(start("A rerunning B"),
                ElementsAre(kRegistering, kRegistering, kRegistering, kRunning, "A", kRunning, "B"));
}

}  // namespace
