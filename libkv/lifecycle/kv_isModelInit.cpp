#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <kv/diagnostics.h>
#include <kv/lifecycle.h>
#include <kv/memory.h>

#include "diagnostics/kv_error_text.h"
#include "os/cancellation.h"
#include "os/trusted_file.h"

namespace {

using kv::setErrorText;

constexpr const char* kTagFolder = "/tmp/kelvaro";
constexpr const char* kTagFile = "model_uuid";
constexpr const char* kExecutableLink = "/proc/self/exe";
constexpr mode_t kTagFolderMode = 0777;
constexpr std::size_t kExecutablePathSize = 200;

enum ModelInitState { modelRun = 0, modelLoad = 1, notInitialized = 2 };

ModelInitState localModelInitState = notInitialized;

/** Not empty once the model is tagged or cannot be. Never destroyed: the model is tagged at exit. */
std::string& taggedChecksumPath() {
    static std::string& path = *new std::string;
    return path;
}

struct FileDeleter {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileDeleter>;

/** Of a file that this thread has locked. */
struct LockedFileDeleter {
    void operator()(std::FILE* file) const noexcept {
        ::funlockfile(file);
        std::fclose(file);
    }
};
using LockedFilePtr = std::unique_ptr<std::FILE, LockedFileDeleter>;

/**
 * Opens the tag file, whose folder lies where every user may write.
 *
 * @return null, with the reason in errno, also for what another user may have put there
 */
FilePtr openTag(int flags, const char* mode) {
    kv::os::UniqueFd opened = kv::os::openTrustedFile(kTagFolder, kTagFile, flags);
    FilePtr file(opened ? ::fdopen(opened.get(), mode) : nullptr);
    if (file) {
        (void)opened.release();  // the stream closes it
    }
    return file;
}

using Line = std::array<char, 200>;

/** Reads the first line with its newline. The reason of a failure is in errno: 0 for an empty file. */
bool readFirstLine(std::FILE* file, Line& line) {
    std::rewind(file);
    errno = 0;
    return std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr;
}

bool readNewChecksum(std::FILE* file, Line& line) {
    if (!readFirstLine(file, line)) {
        kv_printf(kv_debug, "Failed to read new checksum file: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

bool compareChecksums(std::FILE* pNew, std::FILE* pOld) {
    Line newLine;
    Line oldLine;
    if (!readNewChecksum(pNew, newLine)) {
        return false;
    }
    if (!readFirstLine(pOld, oldLine)) {
        kv_printf(kv_debug, "Failed to read old checksum file: %s\n", std::strerror(errno));
        return false;
    }
    const int difference = std::strcmp(newLine.data(), oldLine.data());
    kv_printf(kv_trace, "Checksum comparison returned %d\n", difference);
    return difference == 0;
}

/** Finds the model's checksum file. @return whether that failed, with the reason in pKvErrorStr */
bool getChecksumPath(std::string& uuidPath) {
    std::array<char, kExecutablePathSize> executable;
    const ssize_t length = ::readlink(kExecutableLink, executable.data(), executable.size());
    if (length < 0) {
        setErrorText("Could not find executable path: %s", std::strerror(errno));
        return true;
    }
    uuidPath.append(executable.data(), static_cast<std::size_t>(length));
    const auto binFolder = uuidPath.find("/bin/");
    if (binFolder == std::string::npos) {
        setErrorText("Could not find /bin/ folder in model path");
        return true;
    }
    uuidPath.replace(binFolder, std::string::npos, "/misc/UUID");
    return false;
}

/** Whether another model than this one ran last, as far as the files tell. */
bool isFirstModelRun() try {
    FilePtr tagFile = openTag(O_RDONLY, "r");
    if (!tagFile) {
        return true;
    }
    std::string checksumPath;
    if (getChecksumPath(checksumPath)) {
        kv_printf(kv_info, "isFirstModelRun: Failed to find checksum path: %s\n", pKvErrorStr);
        (void)tagFile.release();  // stays open until exit
        return true;
    }
    const FilePtr checksumFile(std::fopen(checksumPath.c_str(), "r"));
    if (!checksumFile) {
        kv_printf(kv_info, "isFirstModelRun: Failed to open checksum file: %s\n", std::strerror(errno));
        return true;
    }
    return !compareChecksums(checksumFile.get(), tagFile.get());
} catch (const std::bad_alloc&) {
    return true;
}

/** Puts the model's line into the tag file unless it is there. @return the result of kv_tagModelRun() */
int updateTag(const std::string& checksumPath, LockedFilePtr& tagFile) {
    FilePtr checksumFile(std::fopen(checksumPath.c_str(), "r"));
    if (!checksumFile) {
        kv_printf(kv_info, "Tag model run: Failed to open checksum file: %s\n", std::strerror(errno));
        return 1;
    }
    kv_printf(kv_debug, "Tag model run: Found existing checksum file\n");
    if (compareChecksums(checksumFile.get(), tagFile.get())) {
        kv_printf(kv_debug, "Tag model run: Existing checksum file matches\n");
        return 0;
    }
    kv_printf(kv_debug, "Tag model run: Checksum mismatch. Replacing checksum\n");
    std::rewind(tagFile.get());
    if (::ftruncate(::fileno(tagFile.get()), 0) != 0) {
        kv_printf(kv_info, "Tag model run: Failed to open checksum file for writing: %s\n",
                  std::strerror(errno));
        return 1;
    }
    Line line;
    if (!readNewChecksum(checksumFile.get(), line)) {
        (void)checksumFile.release();  // both stay open until exit
        (void)tagFile.release();
        return 0;
    }
    if (std::fputs(line.data(), tagFile.get()) < 0 || std::fflush(tagFile.get()) != 0) {
        kv_printf(kv_info, "Tag model run: Failed to write checksum file: %s\n", std::strerror(errno));
        return 1;
    }
    return 0;
}

}  // namespace

void kv_initModelRun(void) {
    kv_checkModelInit();
}

void kv_checkModelInit(void) {
    const kv::os::CancellationHold hold;
    if (localModelInitState == notInitialized) {
        localModelInitState = isFirstModelRun() ? modelLoad : modelRun;
        if (localModelInitState == modelLoad) {
            kv_freePersistentMemory();
        }
    }
    std::atexit(kv_tagModelAtExit);
}

int kv_isModelInit(void) {
    return localModelInitState == modelLoad ? 1 : 0;
}

int kv_isFirstModelLoad(void) __attribute__((alias("kv_isModelInit")));

void kv_setModelInit(void) {
    localModelInitState = modelLoad;
}

void kv_clearModelInit(void) {
    if (localModelInitState == modelLoad) {
        localModelInitState = modelRun;
    }
}

int kv_tagModelRun(void) try {
    const kv::os::CancellationHold hold;
    std::string& checksumPath = taggedChecksumPath();
    if (!checksumPath.empty()) {
        kv_printf(kv_debug, "Tag model run: Model already tagged\n");
        return 0;
    }
    (void)::mkdir(kTagFolder, kTagFolderMode);  // without the folder, opening the file tells why
    FilePtr opened = openTag(O_RDWR | O_APPEND | O_CREAT, "a+");
    if (!opened) {
        kv_printf(kv_info, "Tag model run: Failed to open/create checksum file: %s\n", std::strerror(errno));
        return 1;
    }
    if (::ftrylockfile(opened.get()) != 0) {
        kv_printf(kv_debug, "Tag model run: Checksum file in use\n");
        return 0;
    }
    LockedFilePtr tagFile(opened.release());
    std::string found;
    const bool failed = getChecksumPath(found);
    checksumPath = std::move(found);
    if (failed) {
        kv_printf(kv_info, "Tag model run: Failed to find checksum path: %s\n", pKvErrorStr);
        (void)tagFile.release();  // stays open and locked until exit
        return 1;
    }
    return updateTag(checksumPath, tagFile);
} catch (const std::bad_alloc&) {
    return 1;
}

void kv_tagModelAtExit(void) {
    const kv::os::CancellationHold hold;
    if (kv_tagModelRun() != 0) {
        kv_printf(kv_warning, "Failed to tag model run");  // kept without its newline, so it never comes out
    }
}
