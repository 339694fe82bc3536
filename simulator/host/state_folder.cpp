#include "host/state_folder.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mount.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "host/private_mounts.h"
#include "kvsim/machine.h"
#include "layout/format.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr const char* kLockFile = "lock";

void makeFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw MachineUnavailable("the state folder " + folder.string() +
                                 " cannot be created: " + std::strerror(error.value()));
    }
}

/** The process that took the lock has left its number. 0 where it has ended, and others hold the lock. */
pid_t holderOf(const std::filesystem::path& lockFile) {
    pid_t holder = 0;
    std::ifstream(lockFile) >> holder;
    return holder > 0 && (::kill(holder, 0) == 0 || errno == EPERM) ? holder : 0;
}

/** False where another machine has the lock. One whose process has ended is given time to go. */
bool lock(int file, const std::filesystem::path& path) {
    constexpr int kAttempts = 200;
    constexpr std::chrono::milliseconds kBetween(10);
    for (int attempt = 0; ::flock(file, LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK) {
            throw std::system_error(errno, std::generic_category(), "cannot lock " + path.string());
        }
        if (holderOf(path) != 0 || attempt == kAttempts) {
            return false;
        }
        std::this_thread::sleep_for(kBetween);
    }
    return true;
}

}  // namespace

UniqueFd lockStateFolder(const std::filesystem::path& folder) {
    makeFolder(folder);
    const std::filesystem::path path = folder / kLockFile;
    UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "cannot open " + path.string());
    }
    if (!lock(file.get(), path)) {
        const pid_t holder = holderOf(path);
        throw std::runtime_error("the state folder " + folder.string() + " is in use by another machine" +
                                 (holder == 0 ? "" : format(", process %d", holder)));
    }
    const std::string number = format("%d\n", ::getpid());
    if (::ftruncate(file.get(), 0) != 0 || ::pwrite(file.get(), number.data(), number.size(), 0) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path.string());
    }
    return file;
}

StateOnHost::StateOnHost(const std::filesystem::path& folder) {
    for (const std::string machineFolder : kStateFolders) {
        const std::filesystem::path onHost = folder / machineFolder.substr(1);
        makeFolder(onHost);
        UniqueFd descriptor = kv::os::openFile(onHost, O_PATH | O_DIRECTORY);
        if (!descriptor) {
            throw MachineUnavailable("cannot open " + onHost.string() + ": " + std::strerror(errno));
        }
        folders_.emplace_back(machineFolder, std::move(descriptor));
    }
}

void StateOnHost::bind() const {
    for (const auto& [machineFolder, descriptor] : folders_) {
        const std::string onHost = format("/proc/self/fd/%d", descriptor.get());
        if (::mount(onHost.c_str(), machineFolder.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            throw MachineUnavailable("cannot bind " + machineFolder + ": " + std::strerror(errno));
        }
    }
}

}  // namespace kvsim
