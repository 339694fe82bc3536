#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

#include "active/active_machine.h"
#include "description/checks.h"
#include "host/tree_writer.h"
#include "layout/dma_buffer.h"
#include "layout/page.h"

namespace kvsim {

namespace {

namespace fs = std::filesystem;

constexpr const char* kManager = "/dev/u-dma-buf-mgr";

std::vector<std::string> wordsOf(std::string_view line) {
    constexpr const char* kBlanks = " \t";
    std::vector<std::string> words;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
        if (line.empty()) {
            return words;
        }
        const std::size_t length = std::min(line.find_first_of(kBlanks), line.size());
        words.emplace_back(line.substr(0, length));
        line.remove_prefix(length);
    }
}

/** A number of bytes, decimal or after 0x hexadecimal; empty for what is none, and for 0. */
std::optional<std::uint64_t> parseSize(std::string_view text) {
    const bool isHex = text.starts_with("0x");
    text.remove_prefix(isHex ? 2 : 0);
    std::uint64_t sizeBytes = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), sizeBytes, isHex ? 16 : 10);
    const bool isNumber = parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
    return isNumber && sizeBytes != 0 ? std::optional(sizeBytes) : std::nullopt;
}

bool isTaken(const std::string& path) {
    std::error_code unknown;
    return fs::exists(fs::symlink_status(path, unknown));
}

/** Programs that have the buffer mapped keep its memory. */
void removeFiles(const DmaBuffer& buffer) {
    FileTree tree;
    layOutDmaBuffer(buffer, tree);
    for (const auto& [path, node] : tree.nodes()) {
        std::error_code removedAlready;
        fs::remove_all(path, removedAlready);
    }
}

/** The u-dma-buf driver: takes a command with each write to its manager. */
class DmaManager : public ActivePart {
 public:
    explicit DmaManager(MachineCore& core) : core_(core) {
        if (const auto& memory = core.description.cachedBuffer) {
            addMemory(cachedBufferOf(*memory));
        }
        if (core.description.dmaMemory) {
            core.files.put(kManager, std::make_shared<AttributeFile>(
                                         0600u, nullptr, [this](auto text) { return execute(text); }));
        }
    }

 private:
    int execute(std::string_view line) {
        if (line.find('\n') != line.size() - 1) {
            return EINVAL;
        }
        const std::vector<std::string> words = wordsOf(line.substr(0, line.size() - 1));
        if (words.size() == 3 && words[0] == "create" && isFileName(words[1])) {
            const auto sizeBytes = parseSize(words[2]);
            return sizeBytes ? create(words[1], *sizeBytes) : EINVAL;
        }
        return words.size() == 2 && words[0] == "delete" ? remove(words[1]) : EINVAL;
    }

    int create(const std::string& name, std::uint64_t sizeBytes) {
        const MemoryRange& memory = *core_.description.dmaMemory;
        if (sizeBytes > memory.sizeBytes) {
            return ENOMEM;
        }
        const auto address = core_.memory.firstGap(memory, roundUpToPages(sizeBytes));
        if (!address) {
            return ENOMEM;
        }
        const DmaBuffer buffer{
            .name = name, .address = *address, .sizeBytes = sizeBytes, .minor = freeMinor()};
        if (isTaken(devicePath(buffer)) || isTaken(std::string(kDmaBufferClass) + "/" + name)) {
            return EEXIST;
        }
        try {
            FileTree tree;
            layOutDmaBuffer(buffer, tree);
            writeTree(tree);
            addMemory(buffer);
        } catch (const std::system_error& error) {
            removeFiles(buffer);
            return error.code().value();
        }
        buffers_.emplace(name, buffer);
        return 0;
    }

    int remove(const std::string& name) {
        const auto buffer = buffers_.find(name);
        if (buffer == buffers_.end()) {
            return ENODEV;
        }
        core_.memory.remove(buffer->second.address);
        removeFiles(buffer->second);
        buffers_.erase(buffer);
        return 0;
    }

    void addMemory(const DmaBuffer& buffer) {
        kv::os::UniqueFd file = kv::os::openFile(devicePath(buffer), O_RDWR | O_NOFOLLOW);
        if (!file) {
            throw std::system_error(errno, std::generic_category(), "cannot open " + devicePath(buffer));
        }
        core_.memory.add(buffer.address, roundUpToPages(buffer.sizeBytes), std::move(file));
    }

    [[nodiscard]] unsigned freeMinor() const {
        std::set<unsigned> taken = {0};  // the cached buffer's
        for (const auto& [name, buffer] : buffers_) {
            taken.insert(buffer.minor);
        }
        unsigned minor = 0;
        while (taken.contains(minor)) {
            ++minor;
        }
        return minor;
    }

    MachineCore& core_;
    std::map<std::string, DmaBuffer> buffers_;
};

}  // namespace

std::unique_ptr<ActivePart> makeDmaManager(MachineCore& core) {
    return std::make_unique<DmaManager>(core);
}

}  // namespace kvsim
