#include "host/mount_points.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <ranges>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "host/cleared_umask.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

/**
 * The mode of a folder that was made for mounting on. Nobody makes one like it otherwise: the sticky bit says
 * something only where others may write.
 */
constexpr mode_t kMark = S_ISVTX | 0755;
constexpr mode_t kModeBits = 07777;

/** For as long as another machine removes the folder, which has its lock then. */
constexpr int kMaxAttempts = 100;
constexpr std::chrono::milliseconds kBetweenAttempts(10);

bool isWritableByAll(const std::filesystem::path& folder) {
    struct stat status {};
    return ::stat(folder.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0;
}

/** Whether a path leads to the folder that is open. */
bool leadsTo(const std::string& path, const struct stat& open) {
    struct stat now {};
    return ::stat(path.c_str(), &now) == 0 && now.st_dev == open.st_dev && now.st_ino == open.st_ino;
}

/** Uses the folders on the way to one of a machine's, from the outermost on. */
class Claim {
 public:
    explicit Claim(MountPlace& place) : place_(place) {}

    bool use(const std::filesystem::path& path) {
        for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
            if (const std::optional<bool> isUsable = tryToUse(path)) {
                return *isUsable;
            }
        }
        return refuse(path, "is locked by another process");
    }

 private:
    /** Empty where the folder is just being made or removed by another machine. */
    std::optional<bool> tryToUse(const std::filesystem::path& path) {
        const bool isShared = isWritableByAll(path.parent_path());
        const int flags = O_DIRECTORY | (isShared ? O_NOFOLLOW : 0);
        UniqueFd folder = kv::os::openFile(path.string(), O_RDONLY | flags);
        if (!folder && errno == EACCES) {
            folder = kv::os::openFile(path.string(), O_PATH | flags);
        }
        if (!folder && errno == ENOENT) {
            return make(path);
        }
        struct stat status {};
        if (!folder || ::fstat(folder.get(), &status) != 0) {
            return refuse(path, errno == ENOTDIR || errno == ELOOP
                                    ? "is not a folder"
                                    : std::string("cannot be opened: ") + std::strerror(errno));
        }
        if (isShared && status.st_uid != 0 && status.st_uid != ::geteuid()) {
            return refuse(path, "belongs to user " + std::to_string(status.st_uid));
        }
        if ((status.st_mode & kModeBits) != kMark) {
            return true;
        }
        if (::flock(folder.get(), LOCK_SH | LOCK_NB) != 0 || !leadsTo(path, status)) {
            std::this_thread::sleep_for(kBetweenAttempts);
            return std::nullopt;
        }
        place_.made.push_back({path, std::move(folder)});
        return true;
    }

    std::optional<bool> make(const std::filesystem::path& path) {
        const ClearedUmask umask;
        if (::mkdir(path.c_str(), kMark) != 0 && errno != EEXIST) {
            return refuse(path, std::string("cannot be created: ") + std::strerror(errno));
        }
        return std::nullopt;
    }

    bool refuse(const std::filesystem::path& path, const std::string& reason) {
        place_.obstacle = path;
        place_.reason = path.string() + " " + reason;
        return false;
    }

    MountPlace& place_;
};

}  // namespace

MountPlace claimMountPlace(const std::filesystem::path& folder) {
    MountPlace place{.folder = folder};
    Claim claim(place);
    std::filesystem::path way = folder.root_path();
    for (const std::filesystem::path& name : folder.relative_path()) {
        way /= name;
        if (!claim.use(way)) {
            break;
        }
    }
    return place;
}

void releaseMountPoints(std::vector<MountPoint>& points) {
    for (MountPoint& point : points | std::views::reverse) {
        struct stat status {};
        if (::flock(point.lock.get(), LOCK_EX | LOCK_NB) == 0 && ::fstat(point.lock.get(), &status) == 0 &&
            leadsTo(point.path, status)) {
            (void)::rmdir(point.path.c_str());  // what somebody has put there stays
        }
        point.lock.reset();
    }
}

}  // namespace kvsim
