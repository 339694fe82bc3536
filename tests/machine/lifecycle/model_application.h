#pragma once

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/machine_test.h"

namespace kv::test {

constexpr const char* kTagFile = "/tmp/kelvaro/model_uuid";

/** A machine with the application of one model, which the tests start as often as they like. */
class ModelApplication : public testing::Test {
 protected:
    void SetUp() override {
        ENTER_MACHINE(machine_);
        install("bin/model");
    }

    /** Puts the model's executable into the application's folder. */
    void install(const std::string& path) {
        executable_ = folder_ + "/" + path;
        std::filesystem::create_directories(std::filesystem::path(executable_).parent_path());
        std::filesystem::copy_file(RESTARTED_MODEL_PROGRAM, executable_);
    }

    void setUuid(const std::string& text) const { kvsim::Machine::write(uuidFile_, text); }

    /** Starts the model. @return what it said and logged, by lines and without times, and how it failed */
    [[nodiscard]] std::vector<std::string> start(const std::string& actions) const {
        std::FILE* const pipe = ::popen(("exec 2>&1; exec " + executable_ + " " + actions).c_str(), "r");
        std::vector<std::string> lines;
        char line[1024];
        while (std::fgets(line, sizeof line, pipe) != nullptr) {
            std::string text = line;
            text.pop_back();
            const auto prefix = text.find(" KV: ");
            lines.push_back(prefix == std::string::npos ? text : text.substr(text.find(' ') + 1));
        }
        const int status = ::pclose(pipe);
        if (status != 0) {
            lines.push_back("wait status " + std::to_string(status));
        }
        return lines;
    }

    static std::vector<std::string> withoutLog(std::vector<std::string> lines) {
        std::erase_if(lines, [](const std::string& line) { return line.find(" KV: ") != std::string::npos; });
        return lines;
    }

    kvsim::Machine machine_;
    const std::string folder_ = "/run/application";
    const std::string uuidFile_ = folder_ + "/misc/UUID";
    std::string executable_;
};

}  // namespace kv::test
