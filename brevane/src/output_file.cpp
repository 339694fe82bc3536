#include "output_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace brevane {

namespace {

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category());
}

}  // namespace

OutputFile::OutputFile(const std::string& path)
    : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)) {
    if (fd_ < 0) {
        fail();
    }
}

OutputFile::~OutputFile() {
    close(fd_);
}

bool OutputFile::isSameFile(const OutputFile& other) const noexcept {
    struct stat mine {};
    struct stat others {};
    return fstat(fd_, &mine) == 0 && fstat(other.fd_, &others) == 0 && S_ISREG(mine.st_mode) &&
           mine.st_dev == others.st_dev && mine.st_ino == others.st_ino;
}

void OutputFile::write(std::string_view content) {
    // Pipes and devices have no length.
    if (ftruncate(fd_, 0) != 0 && errno != EINVAL) {
        fail();
    }
    while (!content.empty()) {
        const ssize_t written = ::write(fd_, content.data(), content.size());
        if (written >= 0) {
            content.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            fail();
        }
    }
}

}  // namespace brevane
