#include "host/machine_server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "active/active_machine.h"
#include "active/serial_lines.h"
#include "host/detached_process.h"
#include "kvsim/machine.h"
#include "layout/format.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr const char* kFuseDevice = "/dev/fuse";

/** The boards act before the programs that use them, whose base rate has priority 80. */
constexpr int kServerPriority = 85;

/** What the server answers when all is well; anything else is the reason why it isn't. */
constexpr char kReady = '.';

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/** The descriptors that the server is sent, in this order. */
enum Sent { kFuse, kRoot, kUserNamespace };

/* ---- The server's side ---- */

/**
 * Takes the machine's root folder and rights, so that paths mean the same here and there. The mount namespace
 * stays the desk's.
 */
void goToMachine(int userNamespace, int root) {
    const bool isOrdinaryUser = ::geteuid() != 0;
    if ((isOrdinaryUser && ::setns(userNamespace, CLONE_NEWUSER) != 0) || ::fchdir(root) != 0 ||
        ::chroot(".") != 0) {
        fail("the machine's server can't reach the machine");
    }
}

void serveMachine(const MachineDescription& description, int connection) {
    std::optional<Message> message = receiveMessage(connection);
    if (!message) {
        return;  // the machine was given up before it was entered
    }
    std::vector<UniqueFd>& descriptors = message->descriptors;
    std::vector<SerialLine> serialLines = openSerialLines(description);
    goToMachine(descriptors[kUserNamespace].get(), descriptors[kRoot].get());
    descriptors[kUserNamespace].reset();
    descriptors[kRoot].reset();
    const sched_param priority{.sched_priority = kServerPriority};
    (void)::sched_setscheduler(0, SCHED_FIFO, &priority);  // without the rights boards are a little late

    EventLoop loop;
    FileService files(descriptors[kFuse].release(), loop);
    const ActiveMachine machine(description, loop, files, std::move(serialLines));
    (void)!::write(connection, &kReady, sizeof kReady);  // nobody reads it where the machine was given up
    ::close(connection);
    loop.run();
    // Nothing is cleared away: the machine's file systems have gone, and its paths would lead to the desk's.
    ::_exit(EXIT_SUCCESS);
}

[[noreturn]] void runServer(const MachineDescription& description, int connection) {
    try {
        serveMachine(description, connection);
    } catch (const std::exception& error) {
        (void)!::write(connection, error.what(), std::strlen(error.what()));
    }
    ::_exit(EXIT_SUCCESS);
}

/* ---- The machine's side ---- */

UniqueFd mountActiveFiles() {
    UniqueFd fuse = kv::os::openFile(kFuseDevice, O_RDWR);
    if (!fuse) {
        const std::string reason = std::strerror(errno);
        throw MachineUnavailable(
            "cannot open " + std::string(kFuseDevice) + ": " + reason +
            "\nDrivers and boards that act need FUSE: modprobe fuse; chmod 0666 /dev/fuse, "
            "in a container also --device /dev/fuse");
    }
    const std::string options = format("fd=%d,rootmode=%o,user_id=%u,group_id=%u,allow_other", fuse.get(),
                                       S_IFDIR, ::geteuid(), ::getegid());
    if (::mount("kvsim", kActiveFolder, "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        throw MachineUnavailable("cannot mount FUSE: " + reason +
                                 "\nA container needs CAP_SYS_ADMIN and a seccomp profile that allows mount");
    }
    return fuse;
}

}  // namespace

MachineServer::MachineServer(const MachineDescription& description)
    : connection_(startDetached([&](int connection) { runServer(description, connection); })) {}

void MachineServer::serve() {
    const UniqueFd fuse = mountActiveFiles();
    const UniqueFd root = kv::os::openFile("/", O_PATH | O_DIRECTORY);
    const UniqueFd userNamespace = kv::os::openFile("/proc/self/ns/user", O_RDONLY);
    sendMessage(connection_.get(), "", {fuse.get(), root.get(), userNamespace.get()});
    std::array<char, 1024> text{};
    const ssize_t length = ::read(connection_.get(), text.data(), text.size());
    connection_.reset();
    const std::string answer(text.data(), static_cast<std::size_t>(std::max(length, ssize_t{0})));
    if (answer != std::string{kReady}) {
        throw std::runtime_error(answer.empty() ? "the machine's server has ended" : answer);
    }
}

}  // namespace kvsim
