#include "tool/tree_copy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "os/unique_fd.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr mode_t kModeBits = 0777;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/** Copies what stands between two offsets. */
bool copyRange(int from, int to, off_t begin, off_t end) {
    std::array<char, 65536> block;
    while (begin < end) {
        const auto wanted = std::min(block.size(), static_cast<std::size_t>(end - begin));
        const ssize_t count = ::pread(from, block.data(), wanted, begin);
        if (count <= 0) {
            return count == 0;  // it has become shorter
        }
        for (ssize_t done = 0; done < count;) {
            const ssize_t written =
                ::pwrite(to, block.data() + done, static_cast<std::size_t>(count - done), begin + done);
            if (written < 0) {
                return false;
            }
            done += written;
        }
        begin += count;
    }
    return true;
}

bool copyContents(int from, int to, const struct stat& status) {
    if (::ftruncate(to, status.st_size) != 0) {
        return false;
    }
    for (off_t end = 0; end < status.st_size;) {
        const off_t begin = ::lseek(from, end, SEEK_DATA);
        if (begin < 0) {
            return errno == ENXIO;  // but for a hole that was all
        }
        end = ::lseek(from, begin, SEEK_HOLE);
        if (end < 0 || !copyRange(from, to, begin, end)) {
            return false;
        }
    }
    const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
    return ::futimens(to, times.data()) == 0;
}

/** Leaves no copy in part. */
bool copyFile(int from, const char* name, int to, const char* target, const struct stat& status) {
    const UniqueFd source(::openat(from, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const UniqueFd copy(
        ::openat(to, target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, status.st_mode & kModeBits));
    if (source && copy && copyContents(source.get(), copy.get(), status)) {
        return true;
    }
    if (copy) {
        const int reason = errno;
        ::unlinkat(to, target, 0);
        errno = reason;
    }
    return false;
}

bool copyLink(int from, const char* name, int to, const char* target) {
    std::string text(PATH_MAX, '\0');
    const ssize_t length = ::readlinkat(from, name, text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max(length, ssize_t{0})));
    return length >= 0 && ::symlinkat(text.c_str(), to, target) == 0;
}

class TreeCopy {
 public:
    explicit TreeCopy(const CopyFailed& failed) : failed_(failed) {}

    bool copy(int from, const std::string& name, int to, const std::string& target, const std::string& path) {
        struct stat status {};
        if (::fstatat(from, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return fail(path, std::strerror(errno));
        }
        if (S_ISDIR(status.st_mode)) {
            return copyFolder(from, name, to, target, path);
        }
        if (::unlinkat(to, target.c_str(), 0) != 0 && errno != ENOENT) {
            return fail(path, std::strerror(errno));
        }
        bool isCopied = false;
        switch (status.st_mode & S_IFMT) {
            case S_IFREG:
                isCopied = copyFile(from, name.c_str(), to, target.c_str(), status);
                break;
            case S_IFLNK:
                isCopied = copyLink(from, name.c_str(), to, target.c_str());
                break;
            case S_IFIFO:
                isCopied = ::mkfifoat(to, target.c_str(), status.st_mode & kModeBits) == 0;
                break;
            default:
                return fail(path, std::string("it is ") + kindOf(status.st_mode));
        }
        return isCopied || fail(path, std::strerror(errno));
    }

    bool fail(const std::string& path, const std::string& reason) {
        failed_(path, reason);
        return false;
    }

 private:
    bool copyFolder(int from, const std::string& name, int to, const std::string& target,
                    const std::string& path) {
        const UniqueFd source(openFolderAt(from, name));
        if (!source || (::mkdirat(to, target.c_str(), 0777) != 0 && errno != EEXIST)) {
            return fail(path, std::strerror(errno));
        }
        const UniqueFd copied(openFolderAt(to, target));
        if (!copied) {
            return fail(path, std::strerror(errno));
        }
        bool isComplete = true;
        for (const std::string& entry : namesIn(source.get())) {
            isComplete &= copy(source.get(), entry, copied.get(), entry, path + "/" + entry);
        }
        return isComplete;
    }

    const CopyFailed& failed_;
};

/** Opens the last folder of a path, all of which are made where they are missing. */
UniqueFd makeFolders(int top, const std::string& path) {
    UniqueFd folder(::openat(top, ".", kFolderFlags));
    for (std::size_t begin = 0; folder && begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, end - begin);
        if (::mkdirat(folder.get(), name.c_str(), 0777) != 0 && errno != EEXIST) {
            return {};
        }
        folder = UniqueFd(openFolderAt(folder.get(), name));
        begin = end + 1;
    }
    return folder;
}

}  // namespace

std::vector<std::string> namesIn(int folder) {
    std::vector<std::string> names;
    UniqueFd own(::openat(folder, ".", kFolderFlags));
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(own ? ::fdopendir(own.get()) : nullptr, ::closedir);
    if (!directory) {
        return names;
    }
    (void)own.release();  // closedir() closes it
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    std::ranges::sort(names);
    return names;
}

int openFolderAt(int folder, const std::string& name) {
    return ::openat(folder, name.c_str(), kFolderFlags);
}

const char* kindOf(mode_t type) {
    switch (type & S_IFMT) {
        case S_IFREG:
            return "a file";
        case S_IFDIR:
            return "a folder";
        case S_IFLNK:
            return "a symbolic link";
        case S_IFIFO:
            return "a FIFO";
        case S_IFSOCK:
            return "a socket";
        default:
            return "a device";
    }
}

bool copyTree(int from, const std::string& name, int to, const std::string& path, const CopyFailed& failed) {
    // Links above the entry itself are not followed either: the source is looked up step by step.
    TreeCopy copy(failed);
    const std::size_t slash = name.rfind('/');
    UniqueFd folder(::openat(from, ".", kFolderFlags));
    for (std::size_t begin = 0; slash != std::string::npos && begin <= slash && folder;) {
        const std::size_t end = name.find('/', begin);
        folder = UniqueFd(openFolderAt(folder.get(), name.substr(begin, end - begin)));
        begin = end + 1;
    }
    const std::size_t targetSlash = path.rfind('/');
    const UniqueFd above =
        makeFolders(to, targetSlash == std::string::npos ? "" : path.substr(0, targetSlash));
    if (!folder || !above) {
        return copy.fail(path, std::strerror(errno));
    }
    return copy.copy(folder.get(), slash == std::string::npos ? name : name.substr(slash + 1), above.get(),
                     targetSlash == std::string::npos ? path : path.substr(targetSlash + 1), path);
}

}  // namespace kvsim
