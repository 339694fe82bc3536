#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace kv::test {

/** A folder for one test's files, removed with all that it holds. */
class TemporaryFolder {
 public:
    TemporaryFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "kv-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make " + pattern);
        }
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code left;  // a folder that stays behind fails no test
        std::filesystem::remove_all(path_, left);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

    std::filesystem::path write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ / name) << text;
        return path_ / name;
    }

 private:
    std::filesystem::path path_;
};

}  // namespace kv::test
