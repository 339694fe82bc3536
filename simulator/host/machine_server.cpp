#include "host/machine_server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "active/active_machine.h"
#include "active/serial_lines.h"
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

/* ---- Descriptors on their way to the server: FUSE device, machine's root folder and user namespace ---- */

enum Sent { kFuse, kRoot, kUserNamespace, kSentDescriptors };
using Descriptors = std::array<int, kSentDescriptors>;

union ControlBuffer {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(Descriptors))];
};

msghdr messageOf(iovec& content, ControlBuffer& control) {
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    return message;
}

void sendDescriptors(int connection, const Descriptors& descriptors) {
    char byte = 0;
    iovec content{&byte, 1};
    ControlBuffer control{};
    const msghdr message = messageOf(content, control);
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptors);
    std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof descriptors);
    if (::sendmsg(connection, &message, MSG_NOSIGNAL) < 0) {
        fail("the machine's server does not answer");
    }
}

/** False where the machine was given up before it was entered. */
bool receiveDescriptors(int connection, Descriptors& descriptors) {
    char byte = 0;
    iovec content{&byte, 1};
    ControlBuffer control{};
    msghdr message = messageOf(content, control);
    if (::recvmsg(connection, &message, MSG_CMSG_CLOEXEC) != 1 || CMSG_FIRSTHDR(&message) == nullptr) {
        return false;
    }
    std::memcpy(descriptors.data(), CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptors);
    return true;
}

/* ---- The server's side ---- */

/** Leaves nothing of the process that it comes from: terminal, signals, open files. */
int detach(int connection) {
    ::setsid();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        std::signal(signal, SIG_DFL);
    }
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    constexpr int kFirstOwn = 3;
    ::dup2(::fcntl(connection, F_DUPFD, kFirstOwn + 1), kFirstOwn);
    ::syscall(SYS_close_range, kFirstOwn + 1, ~0U, 0);
    const int null = ::open("/dev/null", O_RDWR);
    for (int standard = 0; standard < kFirstOwn; ++standard) {
        ::dup2(null, standard);
    }
    return kFirstOwn;
}

/**
 * Takes the machine's root folder and rights, so that paths mean the same here and there. The mount namespace
 * stays the desk's.
 */
void goToMachine(const Descriptors& descriptors) {
    const bool isOrdinaryUser = ::geteuid() != 0;
    if ((isOrdinaryUser && ::setns(descriptors[kUserNamespace], CLONE_NEWUSER) != 0) ||
        ::fchdir(descriptors[kRoot]) != 0 || ::chroot(".") != 0) {
        fail("the machine's server can't reach the machine");
    }
    ::close(descriptors[kUserNamespace]);
    ::close(descriptors[kRoot]);
}

void serveMachine(const MachineDescription& description, int connection) {
    Descriptors descriptors{};
    if (!receiveDescriptors(connection, descriptors)) {
        return;
    }
    std::vector<SerialLine> serialLines = openSerialLines(description);
    goToMachine(descriptors);
    const sched_param priority{.sched_priority = kServerPriority};
    (void)::sched_setscheduler(0, SCHED_FIFO, &priority);  // without the rights boards are a little late

    EventLoop loop;
    FileService files(descriptors[kFuse], loop);
    const ActiveMachine machine(description, loop, files, std::move(serialLines));
    (void)!::write(connection, &kReady, sizeof kReady);  // nobody reads it where the machine was given up
    ::close(connection);
    loop.run();
    // Nothing is cleared away: the machine's file systems have gone, and its paths would lead to the desk's.
    ::_exit(EXIT_SUCCESS);
}

[[noreturn]] void runServer(const MachineDescription& description, int inherited) {
    const int connection = detach(inherited);
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

MachineServer::MachineServer(const MachineDescription& description) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        fail("socketpair");
    }
    connection_.reset(ends[0]);
    const UniqueFd servers(ends[1]);
    // Twice, so that the server is nobody's child: who waits for all children never meets it.
    const pid_t child = ::fork();
    if (child == 0) {
        if (::fork() == 0) {
            connection_.reset();
            runServer(description, servers.get());
        }
        ::_exit(EXIT_SUCCESS);
    }
    if (child < 0) {
        fail("cannot start the machine's server");
    }
    (void)::waitpid(child, nullptr, 0);  // nothing to wait for where children are ignored
}

void MachineServer::serve() {
    const UniqueFd fuse = mountActiveFiles();
    const UniqueFd root = kv::os::openFile("/", O_PATH | O_DIRECTORY);
    const UniqueFd userNamespace = kv::os::openFile("/proc/self/ns/user", O_RDONLY);
    sendDescriptors(connection_.get(), {fuse.get(), root.get(), userNamespace.get()});
    std::array<char, 1024> text{};
    const ssize_t length = ::read(connection_.get(), text.data(), text.size());
    connection_.reset();
    const std::string answer(text.data(), static_cast<std::size_t>(std::max(length, ssize_t{0})));
    if (answer != std::string{kReady}) {
        throw std::runtime_error(answer.empty() ? "the machine's server has ended" : answer);
    }
}

}  // namespace kvsim
