#include "host/mount_points.h"

#include <fstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using kv::test::TemporaryFolder;
using kvsim::claimMountPlace;
using kvsim::MountPlace;
using kvsim::releaseMountPoints;

TEST(MountPoints, AreMadeByTheFirstMachineAndRemovedByTheLast) {
    const TemporaryFolder host;
    const fs::path outer = host.path() / "outer";
    const mode_t formerUmask = ::umask(077);
    MountPlace first = claimMountPlace(outer / "inner");
    ::umask(formerUmask);
    MountPlace second = claimMountPlace(outer / "inner");
    EXPECT_EQ(first.made.size(), 2U);
    EXPECT_EQ(second.made.size(), 2U);
    EXPECT_EQ(fs::status(outer).permissions(), fs::perms{01755}) << "other users take its lock, too";

    releaseMountPoints(first.made);
    EXPECT_TRUE(fs::exists(outer / "inner")) << "another machine is mounted on it";
    std::ofstream(outer / "work") << "somebody's";
    releaseMountPoints(second.made);
    EXPECT_FALSE(fs::exists(outer / "inner"));
    EXPECT_TRUE(fs::exists(outer / "work"));

    fs::remove(outer / "work");
    MountPlace third = claimMountPlace(outer);
    releaseMountPoints(third.made);
    EXPECT_FALSE(fs::exists(outer)) << "left by a machine that was killed";
    fs::create_directory(outer);
    MountPlace fourth = claimMountPlace(outer);
    EXPECT_EQ(fourth.obstacle, "");
    releaseMountPoints(fourth.made);
    EXPECT_TRUE(fs::exists(outer)) << "a folder of the host's own";
}

TEST(MountPoints, AreNotWhatSomebodyElseCanTakeAway) {
    const TemporaryFolder host;
    fs::permissions(host.path(), fs::perms{01777});
    const fs::path place = host.path() / "place";
    const auto reason = [&place] { return claimMountPlace(place / "inner").reason; };
    fs::create_directory_symlink("/usr", place);
    EXPECT_EQ(reason(), place.string() + " is not a folder");
    fs::remove(place);
    host.write("place", "a file");
    EXPECT_EQ(reason(), place.string() + " is not a folder");
    fs::remove(place);
    if (::geteuid() == 0) {
        fs::create_directory(place);
        EXPECT_EQ(::chown(place.c_str(), 65534, 65534), 0);
        EXPECT_EQ(reason(), place.string() + " belongs to user 65534");
        fs::remove(place);
    }
    const MountPlace mine = claimMountPlace(place);
    const kv::os::UniqueFd blocker = kv::os::openFile(place.string(), O_RDONLY);
    EXPECT_EQ(::flock(mine.made.at(0).lock.get(), LOCK_UN), 0);
    EXPECT_EQ(::flock(blocker.get(), LOCK_EX), 0);
    EXPECT_EQ(reason(), place.string() + " is locked by another process") << "without waiting for ever";

    const MountPlace nowhere = claimMountPlace("/proc/kvsim-test");
    EXPECT_EQ(nowhere.obstacle, "/proc/kvsim-test");
    EXPECT_EQ(nowhere.reason, "/proc/kvsim-test cannot be created: No such file or directory");
}

}  // namespace
