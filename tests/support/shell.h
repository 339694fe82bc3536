#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace kv::test {

struct Outcome {
    int status; /**< exit status, -1 where a signal ended the shell */
    std::string output;
};

/** Runs a shell line and takes its standard output and standard error together. */
inline Outcome shell(const std::string& line) {
    std::FILE* const pipe = ::popen(("exec 2>&1; " + line).c_str(), "r");
    std::string output;
    std::array<char, 4096> block;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), pipe)) {
        output.append(block.data(), count);
    }
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

}  // namespace kv::test
