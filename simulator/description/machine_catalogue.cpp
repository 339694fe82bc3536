#include <algorithm>
#include <cstdlib>
#include <set>

#include "host/installation.h"
#include "kvsim/description_reader.h"

namespace kvsim {

namespace {

namespace fs = std::filesystem;

constexpr const char* kExtension = ".yaml";

/** Adds the folders of a list that is separated by colons; those that don't exist are passed over. */
void addFolders(const std::string& list, std::vector<fs::path>& folders) {
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(':', begin), list.size());
        const fs::path folder = list.substr(begin, end - begin);
        if (fs::is_directory(folder)) {
            folders.push_back(folder);
        }
        begin = end + 1;
    }
}

}  // namespace

std::vector<fs::path> machineFolders() {
    std::vector<fs::path> folders;
    const char* const ownFolders = std::getenv("KVSIM_MACHINES");
    addFolders(ownFolders == nullptr ? "" : ownFolders, folders);
    addFolders(installationPrefix() / KVSIM_INSTALLED_MACHINES, folders);
    return folders;
}

std::vector<fs::path> machineFiles() {
    std::vector<fs::path> files;
    std::set<std::string> names;
    for (const fs::path& folder : machineFolders()) {
        std::vector<fs::path> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            if (entry.path().extension() == kExtension) {
                found.push_back(entry.path());
            }
        }
        std::ranges::sort(found);
        std::ranges::copy_if(found, std::back_inserter(files),
                             [&names](const fs::path& file) { return names.insert(file.stem()).second; });
    }
    return files;
}

fs::path findMachine(const std::string& nameOrPath) {
    if (nameOrPath.find('/') != std::string::npos || nameOrPath.ends_with(kExtension)) {
        return nameOrPath;
    }
    std::string names;
    for (const fs::path& file : machineFiles()) {
        if (file.stem() == nameOrPath) {
            return file;
        }
        names.append(" ").append(file.stem().string());
    }
    throw DescriptionError("there is no machine \"" + nameOrPath + "\"; there " +
                           (names.empty() ? "is none at all" : "are:" + names));
}

}  // namespace kvsim
