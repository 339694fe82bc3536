#include "host/detached_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr std::size_t kMaxText = 4096;
constexpr std::size_t kMaxDescriptors = 16;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

union ControlBuffer {
    cmsghdr header;
    char bytes[CMSG_SPACE(kMaxDescriptors * sizeof(int))];
};

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

}  // namespace

void sendMessage(int connection, const std::string& text, const std::vector<int>& descriptors) {
    // One byte more than the text, since a message of no bytes would look like the end.
    iovec content{const_cast<char*>(text.c_str()), text.size() + 1};  // sendmsg changes nothing
    ControlBuffer control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        const std::size_t sizeBytes = descriptors.size() * sizeof(int);
        message.msg_control = control.bytes;
        message.msg_controllen = CMSG_SPACE(sizeBytes);
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeBytes);
        std::memcpy(CMSG_DATA(header), descriptors.data(), sizeBytes);
    }
    if (::sendmsg(connection, &message, MSG_NOSIGNAL) < 0) {
        fail("a process of the machine does not answer");
    }
}

std::optional<Message> receiveMessage(int connection) {
    std::array<char, kMaxText> text;
    iovec content{text.data(), text.size()};
    ControlBuffer control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    ssize_t length = 0;
    while ((length = ::recvmsg(connection, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    if (length <= 0) {
        return std::nullopt;
    }
    Message received{.text = std::string(text.data(), static_cast<std::size_t>(length) - 1),
                     .descriptors = {}};
    if (const cmsghdr* const header = CMSG_FIRSTHDR(&message)) {
        std::array<int, kMaxDescriptors> descriptors;
        const std::size_t sizeBytes = header->cmsg_len - CMSG_LEN(0);
        std::memcpy(descriptors.data(), CMSG_DATA(header), sizeBytes);
        for (std::size_t i = 0; i < sizeBytes / sizeof(int); ++i) {
            received.descriptors.emplace_back(descriptors[i]);
        }
    }
    return received;
}

std::pair<UniqueFd, UniqueFd> makeConnection() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        fail("cannot connect two processes");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

UniqueFd startDetached(const std::function<void(int connection)>& body) {
    auto [ours, theirs] = makeConnection();
    const pid_t child = ::fork();
    if (child == 0) {
        if (::fork() == 0) {
            body(detach(theirs.get()));
        }
        ::_exit(EXIT_SUCCESS);
    }
    if (child < 0) {
        fail("cannot start a process for the machine");
    }
    (void)::waitpid(child, nullptr, 0);  // nothing to wait for where children are ignored
    return std::move(ours);
}

}  // namespace kvsim
