#pragma once

#include <string>
#include <string_view>

namespace brevane {

/** A file that is opened when a run begins, so that none is in vain, and written when it is over. */
class OutputFile {
 public:
    /** Opens the file or makes it, and leaves what it holds. @throw std::system_error that tells why not */
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /** Whether both are one regular file, in which one content would replace the other. */
    [[nodiscard]] bool isSameFile(const OutputFile& other) const noexcept;

    /** Makes @p content all that the file holds. @throw as the constructor does */
    void write(std::string_view content);

 private:
    int fd_;
};

}  // namespace brevane
