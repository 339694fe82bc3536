#pragma once

#include <map>
#include <memory>
#include <string>

#include "active/active_file.h"
#include "active/event_loop.h"

struct fuse_session;

namespace kvsim {

/** The folder in which the machine has its active files; links lead to them from where programs look. */
inline constexpr const char* kActiveFolder = "/run/kvsim/files";

/**
 * Serves active files to the programs on the machine, through FUSE. Never touches one itself: it would wait
 * for its own answer.
 */
class FileService {
 public:
    /**
     * @param fuse  descriptor of /dev/fuse, mounted at kActiveFolder. The service stops the loop when the
     *              mount is gone, which is when the last process has left the machine.
     */
    FileService(int fuse, EventLoop& loop);
    ~FileService();
    FileService(const FileService&) = delete;
    FileService& operator=(const FileService&) = delete;

    /** Puts a file at a path of the machine, in place of a plain file that is there. */
    void put(const std::string& path, std::shared_ptr<ActiveFile> file);
    /** Takes it away again. Who has it open keeps it. */
    void remove(const std::string& path);

 private:
    struct Operations;
    struct Opened;
    struct Buffer;

    void receive();

    EventLoop& loop_;
    std::unique_ptr<Buffer> buffer_;
    fuse_session* session_;
    std::uint64_t nextNode_ = 2;  // 1 is the folder itself
    std::map<std::string, std::uint64_t> nodes_;
    std::map<std::uint64_t, std::shared_ptr<ActiveFile>> files_;
    std::map<std::uint64_t, std::unique_ptr<Opened>> opened_;
    std::uint64_t nextOpened_ = 1;
};

}  // namespace kvsim
