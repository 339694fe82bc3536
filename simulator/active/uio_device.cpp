#include "active/uio_device.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "host/tree_writer.h"
#include "layout/format.h"
#include "layout/uio_layout.h"

namespace kvsim {

namespace {

constexpr const char* kDriverVersion = "0";

/** Interrupt counts and what is written have this size, and no read or write has another. */
constexpr std::size_t kWordSize = sizeof(std::uint32_t);

}  // namespace

/** Each open has its own idea of the count: it starts with the present one, and a read takes the latest. */
class UioFile::Opened : public OpenFile {
 public:
    explicit Opened(std::shared_ptr<UioFile> file) : file_(std::move(file)), seen_(file_->count_) {
        file_->opened_.insert(this);
    }
    ~Opened() override { file_->opened_.erase(this); }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    void read(const ReadRequest& request, std::shared_ptr<PendingRead> read) override {
        if (request.sizeBytes != kWordSize) {
            read->fail(EINVAL);
        } else if (isReadable()) {
            complete(*read);
        } else if (request.nonBlocking) {
            read->fail(EAGAIN);
        } else {
            waiting_.push_back(std::move(read));
        }
    }

    int write(std::string_view bytes, std::uint64_t /*offset*/) override {
        if (bytes.size() != kWordSize || file_->isGone_) {
            return -EINVAL;
        }
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.data(), sizeof value);
        file_->fix_[file_->fixWrites_ % file_->fix_.size()] = value;
        ++file_->fixWrites_;
        if (file_->hasFix() && file_->onFix) {
            file_->onFix();
        }
        return kWordSize;
    }

    [[nodiscard]] bool isReadable() const override { return file_->isGone_ || seen_ != file_->count_; }

    void wake() {
        std::erase_if(waiting_, [](const auto& read) { return !read->isWaiting(); });
        while (isReadable() && !waiting_.empty()) {
            complete(*waiting_.front());
            waiting_.erase(waiting_.begin());
        }
        if (isReadable() && onReadable) {
            onReadable();
        }
    }

 private:
    void complete(PendingRead& read) {
        if (file_->isGone_) {
            read.fail(EIO);
            return;
        }
        seen_ = file_->count_;
        read.answer({reinterpret_cast<const char*>(&seen_), sizeof seen_});
    }

    std::shared_ptr<UioFile> file_;
    std::uint32_t seen_;
    std::vector<std::shared_ptr<PendingRead>> waiting_;
};

UioFile::UioFile() : ActiveFile(0600) {}
UioFile::~UioFile() = default;

std::unique_ptr<OpenFile> UioFile::open(int& /*error*/) {
    return std::make_unique<Opened>(shared_from_this());
}

void UioFile::interrupt() {
    ++count_;
    wakeReaders();
}

void UioFile::disappear() {
    isGone_ = true;
    wakeReaders();
}

void UioFile::wakeReaders() {
    for (Opened* opened : opened_) {
        opened->wake();
    }
}

UioDevice::UioDevice(FileService& files, unsigned number, std::string functionPath)
    : files_(files),
      number_(number),
      functionPath_(std::move(functionPath)),
      file_(std::make_shared<UioFile>()) {
    removeTree(tree(), functionPath_);
    writeTree(tree());
    const auto showCount = [file = file_] { return format("%u\n", file->count()); };
    files_.put(eventPath(), std::make_shared<AttributeFile>(0444U, showCount, nullptr));
    files_.put(uioDeviceFile(number_), file_);
    const auto showFix = [file = file_] {
        const UioFile::Fix fix = file->fix();
        return format("%u 0x%x 0x%x\n", file->fixWrites(), fix.type, fix.mask);
    };
    files_.put(fixPath(), std::make_shared<AttributeFile>(0444U, showFix, nullptr));
}

UioDevice::~UioDevice() {
    for (const std::string& path : {fixPath(), uioDeviceFile(number_), eventPath()}) {
        files_.remove(path);
    }
    removeTree(tree(), functionPath_);
    file_->disappear();
}

FileTree UioDevice::tree() const {
    FileTree tree;
    layOutUioDevice(number_, kUioDriver, kDriverVersion, functionPath_, tree);
    return tree;
}

std::string UioDevice::eventPath() const {
    return functionPath_ + "/" + uioFolder(number_) + "/event";
}

std::string UioDevice::fixPath() const {
    return functionPath_ + "/fix";
}

}  // namespace kvsim
