// Prints what kv_getModelBaseDir() makes of the place where this program stands: result, text and reason.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kv/diagnostics.h>
#include <kv/process.h>

int main(int /*argc*/, char** argv) {
    const auto size = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
    std::vector<char> path(size + 1, '\0');
    const int result = kv_getModelBaseDir(path.data(), size);
    std::printf("%d|%s|%s", result, path.data(), pKvErrorStr);
}
