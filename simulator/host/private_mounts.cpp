#include "host/private_mounts.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "host/made_files.h"
#include "host/state_folder.h"
#include "kvsim/machine.h"
#include "layout/format.h"
#include "os/unique_fd.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

long readNumber(const char* path, long fallback) {
    long number = fallback;
    std::ifstream(path) >> number;
    return number;
}

/** What an administrator changes so that ordinary users may have namespaces. */
std::string namespaceRemedy() {
    const std::string orRoot = ", or run this as root";
    if (readNumber("/proc/sys/kernel/unprivileged_userns_clone", 1) == 0) {
        return "User namespaces are switched off: sysctl kernel.unprivileged_userns_clone=1" + orRoot;
    }
    if (readNumber("/proc/sys/user/max_user_namespaces", 1) == 0) {
        return "No user namespace is allowed: sysctl user.max_user_namespaces=10000" + orRoot;
    }
    if (readNumber("/proc/sys/user/max_mnt_namespaces", 1) == 0) {
        return "No mount namespace is allowed: sysctl user.max_mnt_namespaces=10000";
    }
    if (readNumber("/proc/sys/kernel/apparmor_restrict_unprivileged_userns", 0) != 0) {
        return "AppArmor restricts user namespaces: sysctl kernel.apparmor_restrict_unprivileged_userns=0" +
               orRoot;
    }
    return "A policy forbids it: a container needs CAP_SYS_ADMIN and a seccomp profile that allows unshare "
           "and mount";
}

std::string tooManyThreads() {
    return "The process has several threads already";
}

/** Fails for the reason in errno; the remedy is looked up only then. */
[[noreturn]] void fail(const std::string& what, std::string (*remedy)() = nullptr) {
    const std::string reason = std::strerror(errno);
    throw MachineUnavailable("cannot " + what + ": " + reason + (remedy == nullptr ? "" : "\n" + remedy()));
}

void writeOwnProcFile(const char* path, const std::string& text) {
    const UniqueFd file = kv::os::openFile(path, O_WRONLY);
    if (!file || ::write(file.get(), text.data(), text.size()) < 0) {
        fail(std::string("write ") + path, namespaceRemedy);
    }
}

void becomeRootOfNamespace(uid_t user, gid_t group) {
    writeOwnProcFile("/proc/self/setgroups", "deny");  // without it an ordinary user may not map a group
    writeOwnProcFile("/proc/self/uid_map", format("0 %u 1\n", user));
    writeOwnProcFile("/proc/self/gid_map", format("0 %u 1\n", group));
}

void separateMounts() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (::unshare(CLONE_NEWNS) != 0) {
        if (errno != EPERM) {
            fail("make a mount namespace", namespaceRemedy);
        }
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            fail("make a user and mount namespace", errno == EINVAL ? tooManyThreads : namespaceRemedy);
        }
        becomeRootOfNamespace(user, group);
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("make the mounts private", namespaceRemedy);
    }
}

/** Tells by its type and name which of a covered folder's former entries stay visible. */
using Keep = std::function<bool(const std::string& name, mode_t type)>;

bool keepNothing(const std::string& /*name*/, mode_t /*type*/) {
    return false;
}

/** Shared memory objects are plain files; a folder among them is somebody's work. */
bool keepFolders(const std::string& /*name*/, mode_t type) {
    return type == S_IFDIR;
}

bool keepUserFolders(const std::string& name, mode_t type) {
    return type == S_IFDIR && name == "user";
}

bool keepHarmlessDevices(const std::string& name, mode_t /*type*/) {
    static const std::vector<std::string> names = {"null",  "zero",   "full",  "random", "urandom",
                                                   "tty",   "fuse",   "pts",   "shm",    "fd",
                                                   "stdin", "stdout", "stderr"};
    return std::ranges::find(names, name) != names.end();
}

Keep keepAllBut(const std::string& hidden) {
    return [hidden](const std::string& name, mode_t /*type*/) { return name != hidden; };
}

std::vector<std::string> entriesOf(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(folder.c_str()), ::closedir);
    if (!directory) {
        fail("list " + folder);
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(directory.get())) {
        names.emplace_back(entry->d_name);
    }
    std::erase_if(names, [](const std::string& name) { return name == "." || name == ".."; });
    return names;
}

/** Shows a former entry of a folder again. False where it stays hidden, or has vanished meanwhile. */
bool bindBack(int formerFolder, const std::string& name, const std::string& path, const Keep& keep) {
    // The entry is opened once, so that what is bound is what was looked at, whoever else writes there.
    const UniqueFd entry(::openat(formerFolder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!entry || ::fstat(entry.get(), &status) != 0 || !keep(name, status.st_mode & S_IFMT)) {
        return false;
    }
    const std::string former = format("/proc/self/fd/%d", entry.get());
    if (S_ISLNK(status.st_mode)) {
        std::string target(PATH_MAX, '\0');
        const ssize_t length = ::readlinkat(entry.get(), "", target.data(), target.size());
        target.resize(static_cast<std::size_t>(std::max(length, ssize_t{0})));
        if (::symlink(target.c_str(), path.c_str()) != 0) {
            fail("make " + path);
        }
        return true;
    }
    if (S_ISDIR(status.st_mode) ? ::mkdir(path.c_str(), 0755) != 0
                                : ::mknod(path.c_str(), S_IFREG | 0644, 0) != 0) {
        fail("make " + path);
    }
    if (::mount(former.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        fail("bind " + path, namespaceRemedy);
    }
    std::filesystem::remove(path);
    return false;
}

/** Makes a machine's folders fresh, and remembers which they are. */
class Covers {
 public:
    /** Puts an empty file system over a folder and shows those of its former entries that are to be kept. */
    void cover(const std::string& folder, const Keep& keep, const std::string& reason = "") {
        const UniqueFd former = kv::os::openFile(folder, O_PATH | O_DIRECTORY);
        struct stat status {};
        if (!former || ::fstat(former.get(), &status) != 0) {
            fail("open " + folder);
        }
        const std::vector<std::string> names = entriesOf(folder);

        // The sticky bit says something only where others may write.
        const mode_t mode = status.st_mode & ((status.st_mode & S_IWOTH) != 0 ? 07777 : 06777);
        const std::string options = format("mode=%o", mode);
        if (::mount("kvsim", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
            fail("put a private file system over " + folder, namespaceRemedy);
        }
        for (const std::string& name : names) {
            const std::string path = folder + "/" + name;
            if (bindBack(former.get(), name, path, keep)) {
                made_.push_back(path + "/");
            }
        }
        folders_.push_back({folder, kv::os::openFile(folder, O_RDONLY | O_DIRECTORY), reason});
        if (!folders_.back().folder) {
            fail("open " + folder);
        }
    }

    /**
     * Makes a fresh, empty folder. Where the host has no place for it, the nearest folder above is covered
     * with all its other entries kept, so that the new folder is made in our file system.
     */
    void makeFresh(const MountPlace& place) {
        if (place.obstacle.empty()) {
            cover(place.folder, keepNothing);
            return;
        }
        std::filesystem::path hidden = place.obstacle;
        while (hidden.has_relative_path() && ::access(hidden.parent_path().c_str(), R_OK | X_OK) != 0) {
            hidden = hidden.parent_path();  // an ordinary user may not look into each home folder
        }
        const std::filesystem::path above = hidden.parent_path();
        if (above == above.root_path()) {
            throw MachineUnavailable("the machine has no place on this host: " + place.reason);
        }
        cover(above, keepAllBut(hidden.filename()), place.reason);
        std::filesystem::create_directories(place.folder);
        made_.push_back(place.folder);
    }

    [[nodiscard]] const std::vector<std::string>& made() const { return made_; }
    [[nodiscard]] std::vector<CoveredFolder> takeFolders() && { return std::move(folders_); }

 private:
    std::vector<CoveredFolder> folders_;
    std::vector<std::string> made_;
};

}  // namespace

bool isState(const std::string& path) {
    return std::ranges::any_of(kStateFolders, [&path](const std::string& folder) {
        return path == folder || path.starts_with(folder + "/");
    });
}

std::vector<MountPlace> claimMountPlaces() {
    std::vector<MountPlace> places;
    for (const char* folder : {"/usr/kelvaro", "/home/brvn/logs", "/tmp/kelvaro"}) {
        places.push_back(claimMountPlace(folder));
    }
    return places;
}

std::vector<CoveredFolder> enterPrivateMounts(const std::vector<MountPlace>& places,
                                              const std::string& stateFolder) {
    std::error_code unreachable;
    const std::filesystem::path currentFolder = std::filesystem::current_path(unreachable);

    separateMounts();
    std::optional<StateOnHost> state;
    if (!stateFolder.empty()) {
        state.emplace(stateFolder);
    }
    Covers covers;
    covers.cover("/sys", keepNothing);
    covers.cover("/proc/irq", keepNothing);
    covers.cover("/run", keepUserFolders);
    if (std::filesystem::exists("/dev/shm")) {
        covers.cover("/dev/shm", keepFolders);
    }
    covers.cover("/dev", keepHarmlessDevices);
    for (const MountPlace& place : places) {
        covers.makeFresh(place);
    }
    if (state) {
        state->bind();
    }
    noteMadeFiles(covers.made());

    // The process still stands in the folder as it was before; it goes to what has that name now. A folder
    // that is hidden now is not left.
    if (!unreachable) {
        std::filesystem::current_path(currentFolder, unreachable);
    }
    return std::move(covers).takeFolders();
}

void hideFolder(const std::filesystem::path& folder) {
    Covers().cover(folder.parent_path(), keepAllBut(folder.filename()));
}

}  // namespace kvsim
