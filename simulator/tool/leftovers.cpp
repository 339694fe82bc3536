#include "tool/leftovers.h"

#include <algorithm>
#include <fcntl.h>
#include <iterator>
#include <ranges>
#include <set>
#include <sys/stat.h>

#include "host/made_files.h"
#include "layout/format.h"
#include "os/unique_fd.h"
#include "tool/messages.h"
#include "tool/tree_copy.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr std::size_t kMaxListed = 10;
constexpr const char* kSharedMemory = "/dev/shm";

MadeFiles readMadeFiles(const std::vector<CoveredFolder>& folders) {
    const auto run = std::ranges::find(folders, "/run", &CoveredFolder::path);
    const std::string account = kMadeFiles;
    return {run == folders.end() ? -1 : run->folder.get(), account.substr(std::string("/run/").size())};
}

std::string describe(const std::string& path, mode_t type, std::uintmax_t size) {
    const std::string name = printable(path);
    const auto count = static_cast<unsigned long long>(size);
    switch (type & S_IFMT) {
        case S_IFREG:
            return name + format(count == 1 ? " (%llu byte)" : " (%llu bytes)", count);
        case S_IFDIR:
            return name + format(count == 1 ? "/ (%llu entry)" : "/ (%llu entries)", count);
        default:
            return name + " (" + kindOf(type) + ")";
    }
}

}  // namespace

/** Looks for the files in a folder that the simulator has not made. */
class LeftoverSearch {
 public:
    LeftoverSearch(const MadeFiles& made, const CoveredFolder& cover,
                   std::vector<Leftovers::Leftover>& leftovers)
        : made_(made), cover_(cover), leftovers_(leftovers) {
        struct stat status {};
        device_ = ::fstat(cover.folder.get(), &status) == 0 ? status.st_dev : 0;
    }

    void search(int folder, const std::string& below) {
        for (const std::string& name : namesIn(folder)) {
            const std::string entry = below + name;
            const std::string path = cover_.path + "/" + entry;
            struct stat status {};
            if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                status.st_dev != device_ || path == kSimulatorFolder || made_.holdsAllBelow(path)) {
                continue;
            }
            const bool isFolder = S_ISDIR(status.st_mode);
            const UniqueFd inside(isFolder ? openFolderAt(folder, name) : -1);
            if (!made_.holds(path)) {
                const auto size = isFolder ? countEntries(inside.get())
                                           : static_cast<std::uintmax_t>(std::max(status.st_size, off_t{0}));
                leftovers_.push_back({&cover_, entry, status.st_mode, size});
            } else if (isFolder) {
                search(inside.get(), entry + "/");
            }
        }
    }

 private:
    static std::uintmax_t countEntries(int folder) {
        std::uintmax_t count = 0;
        for (const std::string& name : namesIn(folder)) {
            count += 1 + countEntries(UniqueFd(openFolderAt(folder, name)).get());
        }
        return count;
    }

    const MadeFiles& made_;
    const CoveredFolder& cover_;
    std::vector<Leftovers::Leftover>& leftovers_;
    dev_t device_ = 0;
};

Leftovers::Leftovers(std::vector<CoveredFolder> folders) : folders_(std::move(folders)) {
    const MadeFiles made = readMadeFiles(folders_);
    for (const CoveredFolder& cover : folders_) {
        LeftoverSearch(made, cover, leftovers_).search(cover.folder.get(), "");
    }
    std::ranges::sort(leftovers_, {}, &Leftover::path);
}

bool Leftovers::Leftover::isVolatileState() const {
    // A shared memory object is a plain file; a folder beside it is something else.
    return isState(path()) && !(path().starts_with(kSharedMemory) && S_ISDIR(type));
}

std::string Leftovers::listed(const std::vector<Leftover>& leftovers) {
    std::string lines;
    for (const Leftover& leftover : leftovers | std::views::take(kMaxListed)) {
        lines += "\n  " + describe(leftover.path(), leftover.type, leftover.size);
    }
    return lines +
           (leftovers.size() > kMaxListed ? format("\n  and %zu more", leftovers.size() - kMaxListed) : "");
}

void Leftovers::report() const {
    std::vector<Leftover> lost;
    std::ranges::remove_copy_if(leftovers_, std::back_inserter(lost), &Leftover::isVolatileState);
    if (lost.empty()) {
        return;
    }
    std::set<std::string> reasons;
    for (const Leftover& leftover : lost) {
        const CoveredFolder& cover = *leftover.cover;
        if (!cover.reason.empty()) {
            reasons.insert("\n" + cover.path + " is the machine's, because " + printable(cover.reason));
        }
    }
    std::string message =
        "lost with the machine ('kvsim run --keep DIR' copies it to the host):" + listed(lost);
    for (const std::string& reason : reasons) {
        message += reason;
    }
    printMessage(message);
}

bool Leftovers::copyTo(int destination, const std::string& destinationPath) const {
    const std::string to = " to " + printable(destinationPath) + ":";
    const auto reportFailure = [&to](const std::string& path, const std::string& reason) {
        printMessage("cannot copy " + printable("/" + path) + to + " " + reason);
    };
    std::vector<Leftover> copied;
    std::ranges::copy_if(leftovers_, std::back_inserter(copied), [&](const Leftover& leftover) {
        return copyTree(leftover.cover->folder.get(), leftover.below, destination, leftover.path().substr(1),
                        reportFailure);
    });
    if (!copied.empty()) {
        printMessage("copied" + to + listed(copied));
    }
    return copied.size() == leftovers_.size();
}

}  // namespace kvsim
