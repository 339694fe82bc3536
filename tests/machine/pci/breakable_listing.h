#pragma once

#define FUSE_USE_VERSION 312

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <vector>

#include <fuse.h>

#include "support/child_process.h"

namespace kv::test {

/** Serves a folder of links through FUSE, so that a listing of it can break off with EIO after one entry. */
class BreakableListing {
 public:
    explicit BreakableListing(const std::string& folder) : moved_(folder + ".moved") {
        std::filesystem::rename(folder, moved_);
        std::filesystem::create_directory(folder);
        for (const auto& entry : std::filesystem::directory_iterator(moved_)) {
            names_.push_back(entry.path().filename());
        }
        server_ = startChild([this, &folder] { serve(folder); });
        while (!std::filesystem::exists(folder + "/" + names_[0])) {
            ::usleep(1000);
        }
    }
    ~BreakableListing() {
        ::kill(server_, SIGKILL);
        waitFor(server_);
        ::munmap(listingsUntilBreak_, sizeof *listingsUntilBreak_);
    }
    BreakableListing(const BreakableListing&) = delete;
    BreakableListing& operator=(const BreakableListing&) = delete;

    /** Lets the n-th listing from now on break off. */
    void breakNth(int n) { *listingsUntilBreak_ = n; }

 private:
    static BreakableListing& self() {
        return *static_cast<BreakableListing*>(fuse_get_context()->private_data);
    }

    void serve(const std::string& folder) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        fuse_operations operations{};
        operations.getattr = [](const char* path, struct stat* status, fuse_file_info*) {
            *status = {};
            status->st_mode = std::strcmp(path, "/") == 0 ? S_IFDIR | 0755 : S_IFLNK | 0777;
            return ::access((self().moved_ + path).c_str(), F_OK) == 0 ? 0 : -ENOENT;
        };
        operations.readlink = [](const char* path, char* target, std::size_t size) {
            const std::string text = std::filesystem::read_symlink(self().moved_ + path);
            target[text.copy(target, size - 1)] = '\0';
            return 0;
        };
        operations.opendir = [](const char*, fuse_file_info* info) {
            info->fh = --*self().listingsUntilBreak_ == 0;
            return 0;
        };
        operations.readdir = [](const char*, void* entries, fuse_fill_dir_t fill, off_t offset,
                                fuse_file_info* info, fuse_readdir_flags) {
            const auto& names = self().names_;
            const auto end = info->fh != 0 ? 1U : names.size();
            for (auto i = static_cast<std::size_t>(offset); i < end; ++i) {
                fill(entries, names[i].c_str(), nullptr, static_cast<off_t>(i) + 1, fuse_fill_dir_flags{});
            }
            return info->fh != 0 && offset > 0 ? -EIO : 0;
        };
        char program[] = "listing";
        char inForeground[] = "-f";
        char oneThread[] = "-s";
        std::string mountPoint = folder;
        char* arguments[] = {program, inForeground, oneThread, mountPoint.data(), nullptr};
        fuse_main(4, arguments, &operations, this);
    }

    std::string moved_;
    std::vector<std::string> names_;
    std::atomic<int>* listingsUntilBreak_ = new (
        ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        std::atomic<int>(0);
    pid_t server_;
};

}  // namespace kv::test
