#include "host/installation.h"

#include <dlfcn.h>
#include <link.h>

namespace kvsim {

namespace {

namespace fs = std::filesystem;

fs::path ownFile() {
    Dl_info place{};
    void* module = nullptr;
    const auto own = reinterpret_cast<const void*>(&installationPrefix);
    if (::dladdr1(own, &place, &module, RTLD_DL_LINKMAP) != 0 && module != nullptr) {
        // The program itself has an empty name there.
        if (const char* const library = static_cast<const link_map*>(module)->l_name; *library != '\0') {
            return library;
        }
    }
    return "/proc/self/exe";
}

}  // namespace

fs::path installationPrefix() {
    std::error_code error;
    fs::path folder = fs::canonical(ownFile(), error).parent_path();
    while (!folder.empty() && !fs::is_directory(folder / KVSIM_INSTALLED_MACHINES, error)) {
        folder = folder == folder.root_path() ? fs::path() : folder.parent_path();
    }
    return folder;
}

}  // namespace kvsim
