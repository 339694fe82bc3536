#include "host/tree_writer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <unordered_set>

#include "host/cleared_umask.h"
#include "host/made_files.h"
#include "host/private_mounts.h"
#include "os/unique_fd.h"

namespace kvsim {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), "cannot make " + path);
}

class TreeWriter {
 public:
    void makeFolder(const std::string& path) {
        if (path.empty() || !made_.insert(path).second) {
            return;
        }
        makeFolder(path.substr(0, path.rfind('/')));
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
            fail(path);
        }
    }

    void makeFolderAbove(const std::string& path) { makeFolder(path.substr(0, path.rfind('/'))); }

    void makeFile(const std::string& path, const File& file) {
        makeFolderAbove(path);
        // Never into a file that is there already: it would be the desk's.
        const kv::os::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file.mode));
        if (!fd && errno == EEXIST && isState(path)) {
            return;
        }
        if (!fd || !write(fd.get(), file)) {
            fail(path);
        }
    }

    void makeLink(const std::string& path, const Link& link) {
        makeFolderAbove(path);
        if (::symlink(link.target.c_str(), path.c_str()) != 0 && !(errno == EEXIST && isState(path))) {
            fail(path);
        }
    }

 private:
    static bool write(int fd, const File& file) {
        if (::write(fd, file.content.data(), file.content.size()) < 0) {
            return false;
        }
        if (file.sizeBytes > 0 && ::ftruncate(fd, static_cast<off_t>(file.sizeBytes)) != 0) {
            return false;
        }
        for (const File::Word& word : file.words) {
            const auto offset = static_cast<off_t>(word.offset);
            if (::pwrite(fd, &word.value, sizeof(word.value), offset) != sizeof(word.value)) {
                return false;
            }
        }
        return true;
    }

    std::unordered_set<std::string> made_;
};

}  // namespace

void writeTree(const FileTree& tree) {
    const ClearedUmask umask;
    TreeWriter writer;
    // Links come last, so that no file is made through one.
    for (const auto& [path, node] : tree.nodes()) {
        if (std::holds_alternative<Folder>(node)) {
            writer.makeFolder(path);
        } else if (const File* file = std::get_if<File>(&node)) {
            writer.makeFile(path, *file);
        }
    }
    for (const auto& [path, node] : tree.nodes()) {
        if (const Link* link = std::get_if<Link>(&node)) {
            writer.makeLink(path, *link);
        }
    }
    std::vector<std::string> made;
    for (const auto& [path, node] : tree.nodes()) {
        made.push_back(path);
    }
    noteMadeFiles(made);
}

void removeTree(const FileTree& tree, const std::string& top) {
    std::error_code passedOver;
    for (const auto& [path, node] : tree.nodes()) {
        std::filesystem::path gone = path;
        while (std::filesystem::remove(gone, passedOver)) {
            gone = gone.parent_path();
            if (!gone.string().starts_with(top + "/")) {
                break;
            }
        }
    }
}

}  // namespace kvsim
