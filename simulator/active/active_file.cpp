#include "active/active_file.h"

#include <exception>
#include <optional>

namespace kvsim {

class AttributeFile::Opened : public OpenFile {
 public:
    explicit Opened(const AttributeFile& file) : show_(file.show_), store_(file.store_) {}

    void read(const ReadRequest& request, std::shared_ptr<PendingRead> read) override {
        if (!show_) {
            read->fail(EIO);
            return;
        }
        if (request.offset == 0 || !text_) {
            text_ = show_();  // a reader that reads in pieces gets pieces of one text
        }
        const std::string_view text = *text_;
        read->answer(request.offset < text.size() ? text.substr(request.offset, request.sizeBytes)
                                                  : std::string_view());
    }

    int write(std::string_view bytes, std::uint64_t /*offset*/) override {
        const int error = store(bytes);
        return error == 0 ? static_cast<int>(bytes.size()) : -error;
    }

 private:
    [[nodiscard]] int store(std::string_view bytes) const {
        try {
            return store_ ? store_(bytes) : EIO;
        } catch (const std::exception&) {
            return EIO;  // the program has broken the files that this was to change
        }
    }

    // Copies: the attribute may be removed while it is open.
    Show show_;
    Store store_;
    std::optional<std::string> text_;
};

std::unique_ptr<OpenFile> AttributeFile::open(int& /*error*/) {
    return std::make_unique<Opened>(*this);
}

}  // namespace kvsim
