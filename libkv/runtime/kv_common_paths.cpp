#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <string_view>
#include <unistd.h>

#include <kv/process.h>

#include "diagnostics/kv_error_text.h"

namespace {

constexpr const char* kExecutableLink = "/proc/self/exe";
constexpr const char* kBinDirectory = "/bin/";
constexpr std::size_t kMaxLinkSize = INT_MAX;  // the kernel takes a larger size for a negative one
constexpr std::string_view kConfigBaseDirectory = "/usr/kelvaro";

}  // namespace

bool kv_doesFsNodeExist(const char* pPath) {
    return ::access(pPath, F_OK) != 0;  // kept: callers rely on the inverted sense
}

void kv_fullFile(int nParts, char* path, ...) {
    va_list parts;
    va_start(parts, path);
    char* end = path;
    for (int i = 0; i < nParts; ++i) {
        const char* part = va_arg(parts, const char*);
        if (i > 0) {
            end = stpcpy(end, "/");
        } else if (part == path) {
            end += std::strlen(path);  // callers append to what the buffer holds
            continue;
        }
        end = stpcpy(end, part);
    }
    va_end(parts);
}

void kv_setDriveLetter(char /*driveLetter*/) {}

int kv_getModelBaseDir(char* outPath, uint32_t maxLen) {
    const std::size_t limit = maxLen == 0 ? 0 : std::min<std::size_t>(maxLen - 1, kMaxLinkSize);
    const ssize_t length = ::readlink(kExecutableLink, outPath, limit);
    if (length < 0) {
        kv::setErrorText("Could not read the process exefile");
        return -1;
    }
    outPath[length] = '\0';
    char* bin = std::strstr(outPath, kBinDirectory);
    if (bin == nullptr) {
        return -1;
    }
    *bin = '\0';
    return 0;
}

int kv_getConfigBaseDir(char* outPath, uint32_t maxLen) {
    if (maxLen < kConfigBaseDirectory.size() + 1) {
        return -1;
    }
    outPath[kConfigBaseDirectory.copy(outPath, maxLen)] = '\0';
    return 0;
}
