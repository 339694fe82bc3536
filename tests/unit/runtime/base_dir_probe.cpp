// Prints what kv_getModelBaseDir() makes of the place where this program stands: result, text and reason.
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include <kv/diagnostics.h>
#include <kv/process.h>

int main(int /*argc*/, char** argv) {
    const auto size = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
    std::string path(std::min(size, 4096U) + 1, '\0');
    const int result = kv_getModelBaseDir(path.data(), size);
    std::cout << result << '|' << path.c_str() << '|' << pKvErrorStr;
}
