#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include <kv/process.h>

#include "os/cancellation.h"
#include "os/directory.h"
#include "runtime/kv_root.h"

namespace {

constexpr mode_t kDirectoryMode = 0755;

}  // namespace

int kv_fs_checkDir(const char* path) {
    const kv::os::CancellationHold hold;
    if (kv::os::openDirectory(path) != nullptr) {
        return 0;
    }
    return errno == ENOENT ? -1 : -2;
}

int kv_fs_ensureDirExists(const char* path) {
    const kv::os::CancellationHold hold;
    if (kv_fs_checkDir(path) == 0) {
        return 0;
    }
    return ::mkdir(path, kDirectoryMode);
}

int kv_openAsRoot(const char* file, int flags) {
    const kv::os::CancellationHold hold;
    const kv_beRootObj root;
    return ::open(file, flags);
}
