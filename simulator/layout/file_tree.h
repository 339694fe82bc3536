#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace kvsim {

struct Folder {};

/** A file's initial bytes, and the size to which zeros fill it up without taking memory. */
struct File {
    struct Word {
        std::uint64_t offset;
        std::uint32_t value;
    };

    std::string content = {};
    unsigned mode = 0444;
    std::uint64_t sizeBytes = 0;
    std::vector<Word> words = {};
};

struct Link {
    std::string target;
};

using Node = std::variant<Folder, File, Link>;

/** The files of a machine before they are written, by absolute path. Folders above a node need no mention. */
class FileTree {
 public:
    void addFolder(const std::string& path) { nodes_.insert_or_assign(path, Folder{}); }
    /** A file that is only read: most of a machine's attributes. */
    void addText(const std::string& path, std::string text) { add(path, {.content = std::move(text)}); }
    /** A file that takes what is written to it. */
    void addWritable(const std::string& path, std::string text) {
        add(path, {.content = std::move(text), .mode = 0644});
    }
    void add(const std::string& path, File file) { nodes_.insert_or_assign(path, std::move(file)); }
    /** A symbolic link, relative as the kernel makes them. */
    void addLink(const std::string& path, const std::string& target);

    [[nodiscard]] const std::map<std::string, Node>& nodes() const { return nodes_; }

 private:
    std::map<std::string, Node> nodes_;
};

}  // namespace kvsim
