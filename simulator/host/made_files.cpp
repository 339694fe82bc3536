#include "host/made_files.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "os/unique_fd.h"

namespace kvsim {

namespace {

using kv::os::UniqueFd;

constexpr char kSeparator = '\0';

}  // namespace

void noteMadeFiles(const std::vector<std::string>& paths) {
    std::string text;
    for (const std::string& path : paths) {
        text += path + kSeparator;
    }
    (void)::mkdir(kSimulatorFolder, 0755);  // there already, or the next call fails
    const UniqueFd file(::open(kMadeFiles, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    (void)!::write(file.get(), text.data(), text.size());
}

MadeFiles::MadeFiles(int folder, const std::string& path) {
    const UniqueFd file(::openat(folder, path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    std::string text;
    std::array<char, 65536> block;
    for (ssize_t count = 0; (count = ::read(file.get(), block.data(), block.size())) > 0;) {
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    std::istringstream paths(text);
    for (std::string made; std::getline(paths, made, kSeparator);) {
        paths_.insert(made);
    }
}

bool MadeFiles::holds(const std::string& path) const {
    const auto below = paths_.lower_bound(path + "/");
    return paths_.contains(path) || (below != paths_.end() && below->starts_with(path + "/"));
}

}  // namespace kvsim
