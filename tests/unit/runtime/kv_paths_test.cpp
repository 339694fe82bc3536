#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kv/process.h>

#include "os/unique_fd.h"
#include "support/emulator.h"
#include "support/machine_temporary_folder.h"
#include "unit/brevane/process.h"

namespace fs = std::filesystem;
using kv::os::UniqueFd;

namespace {

TEST(Paths, AreJoinedAndLookedForWithTheSenseInverted) {
    std::array<char, 32> path;
    kv_fullFile(3, path.data(), "a", "b", "c");
    EXPECT_STREQ(path.data(), "a/b/c");
    kv_fullFile(1, path.data(), "alone", "not counted");
    EXPECT_STREQ(path.data(), "alone");
    EXPECT_FALSE(kv_doesFsNodeExist("/"));
    EXPECT_TRUE(kv_doesFsNodeExist("/dev/null/below"));
}

TEST(Paths, NeedRoomForTheConfigurationDirectoryAndItsEnd) {
    std::array<char, 14> path;
    path.fill('x');
    EXPECT_EQ(kv_getConfigBaseDir(path.data(), 12), -1);
    EXPECT_EQ(std::string(path.data(), path.size()), "xxxxxxxxxxxxxx");
    EXPECT_EQ(kv_getConfigBaseDir(path.data(), 13), 0);
    EXPECT_EQ(std::string(path.data(), path.size()), std::string("/usr/kelvaro\0x", 14));
}

/** Puts the probe at a place and lets it tell the base directory that a program there has. */
std::string baseDirectoryOf(const fs::path& program, std::size_t bufferSize) {
    fs::create_directories(program.parent_path());
    fs::copy_file(KV_BASE_DIR_PROBE, program, fs::copy_options::overwrite_existing);
    std::FILE* output = popen((program.string() + " " + std::to_string(bufferSize)).c_str(), "r");
    std::array<char, 512> text{};
    const std::size_t length = std::fread(text.data(), 1, text.size(), output);
    pclose(output);
    return {text.data(), length};
}

TEST(Paths, FindTheApplicationAboveTheFirstBinDirectoryOfItsExecutable) {
    SKIP_IN_EMULATOR("starts no program of its processor");
    const kv::test::TemporaryFolder folder;
    const std::string app = folder.path() / "app";
    const std::string model = app + "/bin/x/bin/model";
    for (const std::size_t enough : {4096U, INT_MAX + 2U, UINT32_MAX}) {
        EXPECT_EQ(baseDirectoryOf(model, enough), "0|" + app + "|") << enough;
    }
    EXPECT_EQ(baseDirectoryOf(app + "/binary/model", 4096), "-1|" + app + "/binary/model|");

    const std::size_t upToBin = app.size() + 5;
    EXPECT_EQ(baseDirectoryOf(model, upToBin + 1), "0|" + app + "|") << "the rest is not needed";
    EXPECT_EQ(baseDirectoryOf(model, upToBin), "-1|" + app + "/bin|") << "cut within /bin/";
    for (const std::size_t tooSmall : {0U, 1U}) {
        EXPECT_EQ(baseDirectoryOf(model, tooSmall), "-1||Could not read the process exefile") << tooSmall;
    }
}

TEST(Directories, AreCheckedAndMade) {
    const kv::test::TemporaryFolder folder;
    const std::string missing = folder.path() / "new";
    const std::string file = folder.write("file", "");
    EXPECT_EQ(kv_fs_checkDir(missing.c_str()), -1);
    EXPECT_EQ(kv_fs_checkDir(file.c_str()), -2) << "not a directory";
    EXPECT_EQ(kv_fs_ensureDirExists((missing + "/below").c_str()), -1) << "parents are not made";
    EXPECT_EQ(kv_fs_ensureDirExists(file.c_str()), -1);
    umask(0);
    EXPECT_EQ(kv_fs_ensureDirExists(missing.c_str()), 0);
    EXPECT_EQ(fs::status(missing).permissions(), fs::perms(0755));
    EXPECT_EQ(kv_fs_ensureDirExists(missing.c_str()), 0);
}

TEST(OpenAsRoot, OpensWhatOnlyRootMayOpenAndDropsTheRightsAgain) {
    EXPECT_EQ(kv_openAsRoot("/no/such/file", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    if (getuid() != 0) {
        GTEST_SKIP() << "the rest needs root, to become a user who may become root again";
    }
    const kv::test::TemporaryFolder folder;
    const std::string secret = folder.write("secret", "text");
    fs::permissions(secret, fs::perms::owner_read | fs::perms::owner_write);
    const brevane::test::BorrowableRoot borrowable;
    ASSERT_FALSE(UniqueFd(::open(secret.c_str(), O_RDWR))) << "an ordinary user may not";
    const UniqueFd file(kv_openAsRoot(secret.c_str(), O_RDWR));
    EXPECT_EQ(::write(file.get(), "T", 1), 1);
    EXPECT_EQ(geteuid(), brevane::test::kNobody);
}

}  // namespace
