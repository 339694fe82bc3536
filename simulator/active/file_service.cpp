#include "active/file_service.h"

#define FUSE_USE_VERSION 312

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>

#include "host/made_files.h"
#include "layout/format.h"

namespace kvsim {

namespace {

/** A name in the one folder there is, for a path: no two paths of a machine give the same. */
std::string nameFor(const std::string& path) {
    std::string name = path.substr(1);
    std::ranges::replace(name, '/', '!');  // as udev writes slashes in names
    return name;
}

class FuseRead : public PendingRead {
 public:
    explicit FuseRead(fuse_req_t request) : request_(request) {}

    [[nodiscard]] bool isWaiting() const override { return request_ != nullptr; }

    void answer(std::string_view bytes) override {
        if (fuse_req_t request = std::exchange(request_, nullptr); request != nullptr) {
            fuse_reply_buf(request, bytes.data(), bytes.size());
        }
    }

    void fail(int error) override {
        if (fuse_req_t request = std::exchange(request_, nullptr); request != nullptr) {
            fuse_reply_err(request, error);
        }
    }

 private:
    fuse_req_t request_;
};

}  // namespace

/** Made by libfuse for the first request and used for all. */
struct FileService::Buffer {
    Buffer() = default;
    ~Buffer() { std::free(request.mem); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    fuse_buf request{};
};

struct FileService::Opened {
    ~Opened() {
        if (poll != nullptr) {
            fuse_pollhandle_destroy(poll);
        }
    }

    std::unique_ptr<OpenFile> file;
    fuse_pollhandle* poll = nullptr;
    /** Those that wait: until they are answered, an interruption may be told to them. */
    std::vector<std::shared_ptr<PendingRead>> reads;
};

/** What the kernel asks. Each operation answers its request exactly once. */
struct FileService::Operations {
    static FileService& service(fuse_req_t request) {
        return *static_cast<FileService*>(fuse_req_userdata(request));
    }

    static struct stat attributesOf(FileService& service, fuse_ino_t node) {
        struct stat status {};
        status.st_ino = node;
        status.st_nlink = 1;
        if (node == FUSE_ROOT_ID) {
            status.st_mode = S_IFDIR | 0755;
            return status;
        }
        const ActiveFile& file = *service.files_.at(node);
        status.st_mode = S_IFREG | file.mode;
        status.st_size = static_cast<off_t>(file.sizeBytes());
        return status;
    }

    static bool exists(FileService& service, fuse_ino_t node) {
        return node == FUSE_ROOT_ID || service.files_.contains(node);
    }

    static void lookup(fuse_req_t request, fuse_ino_t /*folder*/, const char* name) {
        FileService& self = service(request);
        const auto node = self.nodes_.find(name);
        if (node == self.nodes_.end()) {
            fuse_reply_err(request, ENOENT);
            return;
        }
        fuse_entry_param entry{};  // time-outs of 0: files come and go
        entry.ino = node->second;
        entry.attr = attributesOf(self, entry.ino);
        fuse_reply_entry(request, &entry);
    }

    static void getattr(fuse_req_t request, fuse_ino_t node, fuse_file_info* /*info*/) {
        FileService& self = service(request);
        if (!exists(self, node)) {
            fuse_reply_err(request, ENOENT);
            return;
        }
        const struct stat status = attributesOf(self, node);
        fuse_reply_attr(request, &status, 0);
    }

    /** Modes are kept. To cut an active file to another length is to do nothing, as in sysfs. */
    static void setattr(fuse_req_t request, fuse_ino_t node, struct stat* wanted, int which,
                        fuse_file_info* info) {
        FileService& self = service(request);
        if ((which & FUSE_SET_ATTR_MODE) != 0 && self.files_.contains(node)) {
            self.files_.at(node)->mode = wanted->st_mode & 07777;
        }
        getattr(request, node, info);
    }

    static void readdir(fuse_req_t request, fuse_ino_t /*folder*/, std::size_t sizeBytes, off_t offset,
                        fuse_file_info* /*info*/) {
        FileService& self = service(request);
        std::string entries;
        off_t position = 0;
        for (const auto& [name, node] : self.nodes_) {
            if (++position <= offset) {
                continue;
            }
            const struct stat status = attributesOf(self, node);
            const std::size_t length = fuse_add_direntry(request, nullptr, 0, name.c_str(), nullptr, 0);
            if (entries.size() + length > sizeBytes) {
                break;
            }
            entries.resize(entries.size() + length);
            fuse_add_direntry(request, entries.data() + entries.size() - length, length, name.c_str(),
                              &status, position);
        }
        fuse_reply_buf(request, entries.data(), entries.size());
    }

    static void open(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
        FileService& self = service(request);
        const auto file = self.files_.find(node);
        int error = ENOENT;
        auto opened = std::make_unique<Opened>();
        if (file != self.files_.end()) {
            error = EIO;
            opened->file = file->second->open(error);
        }
        if (!opened->file) {
            fuse_reply_err(request, error);
            return;
        }
        info->fh = self.nextOpened_++;
        info->direct_io = 1;  // each read and write comes here
        opened->file->onReadable = [raw = opened.get()] {
            if (raw->poll != nullptr) {
                fuse_lowlevel_notify_poll(raw->poll);
            }
        };
        self.opened_[info->fh] = std::move(opened);
        if (fuse_reply_open(request, info) != 0) {
            self.opened_.erase(info->fh);  // the opener is gone, and no release will come
        }
    }

    static void read(fuse_req_t request, fuse_ino_t /*node*/, std::size_t sizeBytes, off_t offset,
                     fuse_file_info* info) {
        Opened& opened = *service(request).opened_.at(info->fh);
        auto read = std::make_shared<FuseRead>(request);
        if (fuse_req_interrupted(request) != 0) {  // libfuse must not be made to answer from below
            read->fail(EINTR);
            return;
        }
        std::erase_if(opened.reads, [](const auto& each) { return !each->isWaiting(); });
        opened.reads.push_back(read);
        fuse_req_interrupt_func(
            request, [](fuse_req_t, void* data) { static_cast<FuseRead*>(data)->fail(EINTR); }, read.get());
        opened.file->read({.sizeBytes = sizeBytes,
                           .offset = static_cast<std::uint64_t>(offset),
                           .nonBlocking = (info->flags & O_NONBLOCK) != 0},
                          read);
    }

    static void write(fuse_req_t request, fuse_ino_t /*node*/, const char* bytes, std::size_t sizeBytes,
                      off_t offset, fuse_file_info* info) {
        OpenFile& file = *service(request).opened_.at(info->fh)->file;
        const int result = file.write({bytes, sizeBytes}, static_cast<std::uint64_t>(offset));
        if (result < 0) {
            fuse_reply_err(request, -result);
        } else {
            fuse_reply_write(request, static_cast<std::size_t>(result));
        }
    }

    static void poll(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info, fuse_pollhandle* handle) {
        Opened& opened = *service(request).opened_.at(info->fh);
        if (handle != nullptr) {
            if (opened.poll != nullptr) {
                fuse_pollhandle_destroy(opened.poll);
            }
            opened.poll = handle;
        }
        fuse_reply_poll(request, POLLOUT | (opened.file->isReadable() ? POLLIN : 0u));
    }

    static void release(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info) {
        service(request).opened_.erase(info->fh);
        fuse_reply_err(request, 0);
    }
};

FileService::FileService(int fuse, EventLoop& loop) : loop_(loop), buffer_(std::make_unique<Buffer>()) {
    fuse_lowlevel_ops operations{};
    operations.lookup = Operations::lookup;
    operations.getattr = Operations::getattr;
    operations.setattr = Operations::setattr;
    operations.readdir = Operations::readdir;
    operations.open = Operations::open;
    operations.read = Operations::read;
    operations.write = Operations::write;
    operations.poll = Operations::poll;
    operations.release = Operations::release;

    char program[] = "kvsim";
    char* arguments[] = {program, nullptr};
    fuse_args parsed = FUSE_ARGS_INIT(1, arguments);
    session_ = fuse_session_new(&parsed, &operations, sizeof operations, this);
    fuse_opt_free_args(&parsed);
    const std::string mounted = format("/dev/fd/%d", fuse);  // how libfuse is told of a mount that is made
    if (session_ == nullptr || fuse_session_mount(session_, mounted.c_str()) != 0) {
        throw std::runtime_error("libfuse does not serve the mount");
    }
    ::fcntl(fuse, F_SETFL, ::fcntl(fuse, F_GETFL) | O_NONBLOCK);  // a request may be withdrawn again
    loop_.watch(fuse, [this] { receive(); });
}

FileService::~FileService() {
    opened_.clear();
    loop_.forget(fuse_session_fd(session_));
    fuse_session_destroy(session_);
}

void FileService::receive() {
    if (fuse_session_receive_buf(session_, &buffer_->request) > 0) {
        fuse_session_process_buf(session_, &buffer_->request);
    }
    if (fuse_session_exited(session_) != 0) {
        loop_.stop();
    }
}

void FileService::put(const std::string& path, std::shared_ptr<ActiveFile> file) {
    const std::string name = nameFor(path);
    remove(path);
    nodes_[name] = nextNode_;
    files_[nextNode_] = std::move(file);
    ++nextNode_;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::create_symlink(std::string(kActiveFolder) + "/" + name, path);
    noteMadeFiles({path});
}

void FileService::remove(const std::string& path) {
    std::error_code leftAsItIs;  // a program may have put something else there
    std::filesystem::remove(path, leftAsItIs);
    if (const auto node = nodes_.find(nameFor(path)); node != nodes_.end()) {
        files_.erase(node->second);
        nodes_.erase(node);
    }
}

}  // namespace kvsim
