#include "host/private_mounts.h"

#include <algorithm>
#include <cerrno>
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

bool keepAll(const std::string& /*name*/, mode_t /*type*/) {
    return true;
}

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

/** Shows a former entry of a folder again. One that has vanished meanwhile is passed over. */
void bindBack(const std::string& formerPath, const std::string& path, mode_t type) {
    if (type == S_IFLNK) {
        std::error_code vanished;
        std::filesystem::copy_symlink(formerPath, path, vanished);
        return;
    }
    const bool isFolder = type == S_IFDIR;
    if (isFolder ? ::mkdir(path.c_str(), 0755) != 0 : ::mknod(path.c_str(), S_IFREG | 0644, 0) != 0) {
        fail("make " + path);
    }
    if (::mount(formerPath.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0) {
        return;
    }
    if (errno != ENOENT) {
        fail("bind " + path, namespaceRemedy);
    }
    std::filesystem::remove(path);
}

/** Puts an empty file system over a folder and shows those of its former entries that are to be kept. */
void cover(const std::string& folder, const Keep& keep) {
    const UniqueFd former = kv::os::openFile(folder, O_PATH | O_DIRECTORY);
    struct stat status {};
    if (!former || ::fstat(former.get(), &status) != 0) {
        fail("open " + folder);
    }
    const std::vector<std::string> names = entriesOf(folder);

    const std::string options = format("mode=%o", status.st_mode & 07777);
    if (::mount("kvsim", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        fail("put a private file system over " + folder, namespaceRemedy);
    }
    const std::string formerFolder = format("/proc/self/fd/%d", former.get());
    for (const std::string& name : names) {
        const std::string path = "/" + name;
        const bool exists = ::fstatat(former.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        const mode_t type = status.st_mode & S_IFMT;
        if (exists && keep(name, type)) {
            bindBack(formerFolder + path, folder + path, type);
        }
    }
}

/**
 * Makes a fresh, empty folder. Where the desk has none, the nearest folder above it is covered with all its
 * entries kept, so that the new folder is made in our file system and never on the desk.
 */
void makeFresh(const std::filesystem::path& folder) {
    if (std::filesystem::exists(folder)) {
        cover(folder, keepNothing);
        return;
    }
    std::filesystem::path above = folder.parent_path();
    while (!std::filesystem::exists(above)) {
        above = above.parent_path();
    }
    if (above == above.root_path()) {
        errno = ENOENT;
        fail("find the folder above " + folder.string());  // the root itself can't be covered
    }
    cover(above, keepAll);
    std::filesystem::create_directories(folder);
}

/** The folders on the desk that hold a machine's state, opened before the machine's own folders hide them. */
class StateOnDesk {
 public:
    explicit StateOnDesk(const std::filesystem::path& folder) {
        for (const std::string machineFolder : kStateFolders) {
            const std::filesystem::path onDesk = folder / machineFolder.substr(1);
            std::filesystem::create_directories(onDesk);
            UniqueFd descriptor = kv::os::openFile(onDesk, O_PATH | O_DIRECTORY);
            if (!descriptor) {
                fail("open " + onDesk.string());
            }
            folders_.emplace_back(machineFolder, std::move(descriptor));
        }
    }

    /** Shows them where the machine has them. */
    void bind() const {
        for (const auto& [machineFolder, descriptor] : folders_) {
            const std::string onDesk = format("/proc/self/fd/%d", descriptor.get());
            if (::mount(onDesk.c_str(), machineFolder.c_str(), nullptr, MS_BIND, nullptr) != 0) {
                fail("bind " + machineFolder, namespaceRemedy);
            }
        }
    }

 private:
    std::vector<std::pair<std::string, UniqueFd>> folders_;
};

}  // namespace

void enterPrivateMounts(const std::string& stateFolder) {
    std::error_code unreachable;
    const std::filesystem::path currentFolder = std::filesystem::current_path(unreachable);

    separateMounts();
    std::optional<StateOnDesk> state;
    if (!stateFolder.empty()) {
        state.emplace(stateFolder);
    }
    cover("/sys", keepNothing);
    cover("/proc/irq", keepNothing);
    cover("/run", keepUserFolders);
    if (std::filesystem::exists("/dev/shm")) {
        cover("/dev/shm", keepFolders);
    }
    cover("/dev", keepHarmlessDevices);
    makeFresh("/usr/kelvaro");
    makeFresh("/home/brvn/logs");
    makeFresh("/tmp/kelvaro");
    if (state) {
        state->bind();
    }

    // The process still stands in the folder as it was before; it goes to what has that name now. A folder
    // that is hidden now is not left.
    if (!unreachable) {
        std::filesystem::current_path(currentFolder, unreachable);
    }
}

}  // namespace kvsim
