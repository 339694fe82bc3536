#include <filesystem>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "model_application.h"

using kv::test::kTagFile;
using kvsim::Machine;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace {

class ModelRun : public kv::test::ModelApplication {};

TEST_F(ModelRun, IsTheRestartOfAnUnchangedModelAndKeepsItsMemory) {
    setUuid("1234\n");
    const std::string actions = "init first count";
    EXPECT_THAT(start(actions), IsSupersetOf({"first 1", "run 1"}));
    EXPECT_THAT(start(actions), IsSupersetOf({"first 0", "run 2"}));
    EXPECT_THAT(start(actions), IsSupersetOf({"first 0", "run 3"}));
    setUuid("5678\n");
    EXPECT_THAT(start(actions), IsSupersetOf({"first 1", "run 1"}));
    EXPECT_THAT(start(actions), IsSupersetOf({"first 0", "run 2"}));
    EXPECT_EQ(Machine::read(kTagFile), "5678\n");
}

TEST_F(ModelRun, ComparesFirstLinesOnly) {
    const std::string line199(199, 'a');
    const struct {
        std::string tag;
        std::string uuid;
        const char* first;
        std::string tagAfterwards;
    } cases[] = {
        {"1234\nold\n", "1234\nnew\n", "first 0", "1234\nold\n"},
        {"1234", "1234\n", "first 1", "1234\n"},
        {"1234\n", "1234", "first 1", "1234"},
        {"1234", "1234", "first 0", "1234"},
        {"\n", "\n", "first 0", "\n"},
        {line199 + "b\n", line199 + "c\n", "first 0", line199 + "b\n"},
        {"1234\n", line199 + "c\n", "first 1", line199},
        {line199, line199 + "c\n", "first 0", line199},
    };
    for (const auto& each : cases) {
        Machine::write(kTagFile, each.tag);
        setUuid(each.uuid);
        EXPECT_THAT(start("init first"), Contains(each.first)) << each.tag << " and " << each.uuid;
        EXPECT_EQ(Machine::read(kTagFile), each.tagAfterwards) << each.tag << " and " << each.uuid;
    }
}

TEST_F(ModelRun, IsTaggedOncePerProcess) {
    setUuid("1234\n");
    Machine::remove("/tmp/kelvaro");
    EXPECT_THAT(start("tag tag init"),
                ElementsAre("debug KV: Tag model run: Found existing checksum file",
                            "debug KV: Failed to read old checksum file: Success",
                            "debug KV: Tag model run: Checksum mismatch. Replacing checksum", "tagged 0",
                            "debug KV: Tag model run: Model already tagged", "tagged 0",
                            "debug KV: Tag model run: Model already tagged"));
    EXPECT_EQ(Machine::read(kTagFile), "1234\n");
    EXPECT_THAT(start("terminate terminate"),
                ElementsAre("debug KV: Tag model run: Found existing checksum file",
                            "debug KV: Tag model run: Existing checksum file matches",
                            "debug KV: Tag model run: Model already tagged"));
}

TEST_F(ModelRun, CanBeDeclared) {
    setUuid("1234\n");
    EXPECT_THAT(withoutLog(start("first clear first init first clear first set first")),
                ElementsAre("first 0", "first 0", "first 1", "first 0", "first 1"));
    EXPECT_THAT(start("set init first"), Contains("first 1")) << "what was declared is not decided again";
}

TEST_F(ModelRun, IsALoadWhereTheTagCannotBeRead) {
    setUuid("1234\n");
    Machine::write(kTagFile, "");
    EXPECT_THAT(start("init first"),
                IsSupersetOf({"debug KV: Failed to read old checksum file: Success", "first 1"}));
    EXPECT_EQ(Machine::read(kTagFile), "1234\n");

    ASSERT_EQ(::mount("full", "/tmp/kelvaro", "tmpfs", 0, "size=4k"), 0);
    Machine::write("/tmp/kelvaro/other", std::string(4096, 'x'));
    EXPECT_THAT(
        start("init first tag"),
        IsSupersetOf({"first 1",
                      "info KV: Tag model run: Failed to write checksum file: No space left on device",
                      "tagged 1"}));
    ASSERT_EQ(::umount("/tmp/kelvaro"), 0);
}

TEST_F(ModelRun, IsALoadWhereAnotherUserMayHavePutTheTag) {
    ::alarm(60);
    setUuid("1234\n");
    const std::string folder = "/tmp/kelvaro";
    const std::string victim = folder + "/victim/model_uuid";
    const struct {
        std::function<bool()> setUp;
        const char* reason;
    } cases[] = {
        {[] { return ::mkdir(kTagFile, 0755) == 0; }, "Is a directory"},
        {[] { return ::mkfifo(kTagFile, 0666) == 0; }, "Invalid argument"},
        {[&] { return ::symlink(victim.c_str(), kTagFile) == 0; }, "Too many levels of symbolic links"},
        {[&] { return ::link(victim.c_str(), kTagFile) == 0; }, "Too many links"},
        {[&] { return ::rename(victim.c_str(), kTagFile) == 0 && ::chown(kTagFile, 1000, 1000) == 0; },
         "Operation not permitted"},
        {[&] { return ::rename(victim.c_str(), kTagFile) == 0 && ::chown(folder.c_str(), 1000, 1000) == 0; },
         "Operation not permitted"},
        {[&] {
             return ::rename(folder.c_str(), "/tmp/moved") == 0 && ::symlink("moved", folder.c_str()) == 0;
         },
         "Not a directory"},
    };
    for (const auto& each : cases) {
        std::filesystem::remove(kTagFile);
        Machine::write(victim, "1234\n");
        if (!each.setUp()) {
            continue;  // only root gives files away, and the folder may be a mount
        }
        setUuid("5678\n");
        EXPECT_THAT(start("tag"), IsSupersetOf({std::string("info KV: Tag model run: Failed to open/create "
                                                            "checksum file: ") +
                                                    each.reason,
                                                std::string("tagged 1")}));
        setUuid("1234\n");
        EXPECT_THAT(start("init first"), Contains("first 1")) << each.reason << ": the tag is not read";
        const bool isFile = is_regular_file(std::filesystem::symlink_status(kTagFile));
        EXPECT_EQ(Machine::read(isFile ? kTagFile : victim), "1234\n") << each.reason;
    }
}

TEST_F(ModelRun, IsALoadWhereTheModelHasNoIdentity) {
    Machine::write(kTagFile, "1234\n");
    EXPECT_THAT(
        start("init first tag tag"),
        IsSupersetOf({"info KV: isFirstModelRun: Failed to open checksum file: No such file or directory",
                      "first 1",
                      "info KV: Tag model run: Failed to open checksum file: No such file or directory",
                      "tagged 1", "debug KV: Tag model run: Model already tagged", "tagged 0"}));
    EXPECT_EQ(Machine::read(kTagFile), "1234\n");

    setUuid("");
    EXPECT_THAT(start("init first tag"),
                IsSupersetOf({"debug KV: Failed to read new checksum file: Success", "first 1", "tagged 0"}));
    EXPECT_EQ(Machine::read(kTagFile), "");

    Machine::replaceByFolder(uuidFile_);
    EXPECT_THAT(start("init first"),
                IsSupersetOf({"debug KV: Failed to read new checksum file: Is a directory", "first 1"}));
}

TEST_F(ModelRun, IsALoadOutsideABinFolder) {
    setUuid("1234\n");
    Machine::write(kTagFile, "1234\n");
    const std::string reason = "Could not find /bin/ folder in model path";
    install("sbin/model");
    EXPECT_THAT(start("init reason first tag tag"),
                ElementsAre("info KV: isFirstModelRun: Failed to find checksum path: " + reason,
                            "debug KV: Loaded descriptor list. 0 entries",
                            "debug KV: Unlinked persistent memory: kv_persMem_main", "reason " + reason,
                            "first 1", "info KV: Tag model run: Failed to find checksum path: " + reason,
                            "tagged 1", "debug KV: Tag model run: Model already tagged", "tagged 0",
                            "debug KV: Tag model run: Model already tagged"));

    install(std::string(180, 'l') + "/bin/model");
    EXPECT_THAT(start("init reason"), Contains("reason " + reason)) << "the path is cut before its /bin/";
    install("bin/" + std::string(180, 'l'));
    EXPECT_THAT(start("init first"), Contains("first 0")) << "the path is cut behind its /bin/";
}

TEST_F(ModelRun, StandsForNothingWhereItCannotBeTagged) {
    setUuid("1234\n");
    Machine::write("/tmp/kelvaro/other", "");
    ASSERT_EQ(::mount("kvsim", "/tmp/kelvaro", "tmpfs", MS_RDONLY, nullptr), 0);
    for (int run = 0; run < 2; ++run) {
        const auto lines = start("init first count");
        EXPECT_THAT(lines, IsSupersetOf({"first 1", "run 1",
                                         "info KV: Tag model run: Failed to open/create checksum file: "
                                         "Read-only file system"}));
        EXPECT_THAT(lines, Not(Contains(HasSubstr("Failed to tag"))))
            << "has no line end, so never comes out";
    }
    ASSERT_EQ(::umount("/tmp/kelvaro"), 0);
    EXPECT_THAT(start("init"), Not(Contains(HasSubstr("Failed to open/create"))));
}

}  // namespace
