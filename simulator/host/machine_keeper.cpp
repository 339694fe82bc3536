#include "host/machine_keeper.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>

#include "host/detached_process.h"
#include "kvsim/machine.h"
#include "layout/format.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

/** Each watch ends, and says so, when its file system has gone. */
void waitUntilGone(int watches, int count) {
    alignas(inotify_event) std::array<char, 4096> block;
    while (count > 0) {
        const ssize_t length = ::read(watches, block.data(), block.size());
        if (length < 0 && errno != EINTR) {
            return;
        }
        for (ssize_t at = 0; at < length;) {
            inotify_event event{};
            std::memcpy(&event, &block.at(static_cast<std::size_t>(at)), sizeof event);
            count -= (event.mask & IN_IGNORED) != 0 ? 1 : 0;
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}

/** The paths come first, one to a line, and their locks in the same order; a state folder's lock is the last.
 */
std::vector<MountPoint> mountPointsOf(Message& message) {
    std::vector<MountPoint> points;
    std::istringstream paths(message.text);
    for (std::string path; std::getline(paths, path);) {
        points.push_back({path, std::move(message.descriptors.at(points.size()))});
    }
    return points;
}

void keep(int connection) {
    (void)::chdir("/");  // holds no file system of the caller's
    std::optional<Message> taken = receiveMessage(connection);
    if (!taken) {
        return;
    }
    std::vector<MountPoint> points = mountPointsOf(*taken);
    if (const std::optional<Message> watch = receiveMessage(connection)) {
        waitUntilGone(watch->descriptors.at(0).get(), std::atoi(watch->text.c_str()));
    }
    releaseMountPoints(points);
}

[[noreturn]] void runKeeper(int connection) {
    try {
        keep(connection);
    } catch (const std::exception&) {
        // Nobody is left who could be told; what was made is removed by the next machine.
    }
    ::_exit(EXIT_SUCCESS);
}

[[noreturn]] void fail(const char* what) {
    throw MachineUnavailable(
        format("cannot %s: %s%s", what, std::strerror(errno),
               errno == EMFILE ? "\nToo many: sysctl fs.inotify.max_user_instances=1024" : ""));
}

}  // namespace

MachineKeeper::MachineKeeper(std::vector<MountPoint> mountPoints, UniqueFd stateLock)
    : connection_(startDetached(runKeeper)) {
    std::string paths;
    std::vector<int> descriptors;
    for (const MountPoint& point : mountPoints) {
        paths += point.path + "\n";
        descriptors.push_back(point.lock.get());
    }
    if (stateLock) {
        descriptors.push_back(stateLock.get());
    }
    sendMessage(connection_.get(), paths, descriptors);
}

UniqueFd MachineKeeper::watch(const std::vector<int>& fileSystems) && {
    const UniqueFd watches(::inotify_init1(IN_CLOEXEC));
    if (!watches) {
        fail("watch for the machine's end");
    }
    for (const int fileSystem : fileSystems) {
        const std::string path = format("/proc/self/fd/%d", fileSystem);
        if (::inotify_add_watch(watches.get(), path.c_str(), IN_DELETE_SELF) < 0) {
            fail("watch for the machine's end");
        }
    }
    sendMessage(connection_.get(), std::to_string(fileSystems.size()), {watches.get()});
    return std::move(connection_);
}

}  // namespace kvsim
