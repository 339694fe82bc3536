#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "gpio/gpio_files.h"
#include "gpio/gpiod_types.h"
#include "os/directory.h"

using kvsim::gpio::refuse;

namespace {

constexpr const char* kDeviceFolder = "/dev/";
constexpr const char* kChipPrefix = "gpiochip";

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

/** Where a device file leads. Empty, with the reason in errno, where that is no chip. */
std::string chipFolder(const char* path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path, nullptr), std::free);
    if (!real) {
        return {};
    }
    std::string folder = real.get();
    if (folder.substr(0, folder.rfind('/')) != kvsim::kGpioFolder) {
        refuse(ENOTTY);  // some other device
        return {};
    }
    return folder;
}

bool isNumber(const std::string& text) {
    return !text.empty() && std::ranges::all_of(text, [](unsigned char each) { return std::isdigit(each); });
}

}  // namespace

gpiod_chip* gpiod_chip_open(const char* path) {
    auto chip = std::make_unique<gpiod_chip>();
    chip->path = chipFolder(path);
    if (chip->path.empty() || !kvsim::gpio::readLine(chip->path + "/label", chip->label)) {
        return nullptr;
    }
    chip->name = chip->path.substr(chip->path.rfind('/') + 1);
    while (exists(chip->path + "/lines/" + std::to_string(chip->lines.size()))) {
        chip->lines.emplace_back();
    }
    return chip.release();
}

gpiod_chip* gpiod_chip_open_by_name(const char* name) {
    return gpiod_chip_open((std::string(kDeviceFolder) + name).c_str());
}

gpiod_chip* gpiod_chip_open_by_number(unsigned int num) {
    return gpiod_chip_open_by_name((kChipPrefix + std::to_string(num)).c_str());
}

gpiod_chip* gpiod_chip_open_by_label(const char* label) {
    gpiod_chip_iter* const chips = gpiod_chip_iter_new();
    if (chips == nullptr) {
        return nullptr;
    }
    while (gpiod_chip* const chip = gpiod_chip_iter_next(chips)) {
        if (chip->label == label) {
            gpiod_chip_iter_free_noclose(chips);
            return chip;
        }
    }
    gpiod_chip_iter_free(chips);
    refuse(ENOENT);
    return nullptr;
}

gpiod_chip* gpiod_chip_open_lookup(const char* descr) {
    if (isNumber(descr)) {
        return gpiod_chip_open_by_number(static_cast<unsigned>(std::strtoul(descr, nullptr, 10)));
    }
    if (gpiod_chip* const chip = gpiod_chip_open_by_label(descr)) {
        return chip;
    }
    return std::string(descr).starts_with(kDeviceFolder) ? gpiod_chip_open(descr)
                                                         : gpiod_chip_open_by_name(descr);
}

void gpiod_chip_close(gpiod_chip* chip) {
    for (const auto& line : chip->lines) {
        if (line && gpiod_line_is_requested(line.get())) {
            gpiod_line_bulk bulk = GPIOD_LINE_BULK_INITIALIZER;
            gpiod_line_bulk_add(&bulk, line.get());
            gpiod_line_release_bulk(&bulk);
        }
    }
    delete chip;
}

const char* gpiod_chip_name(gpiod_chip* chip) {
    return chip->name.c_str();
}

const char* gpiod_chip_label(gpiod_chip* chip) {
    return chip->label.c_str();
}

unsigned int gpiod_chip_num_lines(gpiod_chip* chip) {
    return static_cast<unsigned>(chip->lines.size());
}

gpiod_line* gpiod_chip_get_line(gpiod_chip* chip, unsigned int offset) {
    if (offset >= chip->lines.size()) {
        refuse(EINVAL);
        return nullptr;
    }
    auto& line = chip->lines[offset];
    if (!line) {
        line = std::make_unique<gpiod_line>(*chip, offset);
    }
    return gpiod_line_update(line.get()) == 0 ? line.get() : nullptr;
}

gpiod_line* gpiod_chip_find_line(gpiod_chip* chip, const char* name) {
    for (unsigned offset = 0; offset < chip->lines.size(); ++offset) {
        gpiod_line* const line = gpiod_chip_get_line(chip, offset);
        if (line == nullptr) {
            return nullptr;
        }
        if (line->name == name) {
            return line;
        }
    }
    refuse(ENOENT);
    return nullptr;
}

/* ---- All chips, all lines ---- */

struct gpiod_chip_iter {
    std::vector<gpiod_chip*> chips;
    std::size_t next = 0; /**< those before it were handed out */
};

struct gpiod_line_iter {
    std::vector<gpiod_line*> lines;
    std::size_t next = 0;
};

gpiod_chip_iter* gpiod_chip_iter_new() {
    const kv::os::DirectoryPtr folder = kv::os::openDirectory(kDeviceFolder);
    if (!folder) {
        return nullptr;
    }
    std::vector<std::string> names;
    while (const dirent* const entry = ::readdir(folder.get())) {
        if (std::string(entry->d_name).starts_with(kChipPrefix)) {
            names.emplace_back(entry->d_name);
        }
    }
    std::ranges::sort(names);
    auto chips = std::make_unique<gpiod_chip_iter>();
    for (const std::string& name : names) {
        gpiod_chip* const chip = gpiod_chip_open_by_name(name.c_str());
        if (chip == nullptr) {
            const int error = errno;
            gpiod_chip_iter_free_noclose(chips.release());
            refuse(error);
            return nullptr;
        }
        chips->chips.push_back(chip);
    }
    return chips.release();
}

void gpiod_chip_iter_free_noclose(gpiod_chip_iter* iter) {
    for (; iter->next < iter->chips.size(); ++iter->next) {
        gpiod_chip_close(iter->chips[iter->next]);
    }
    delete iter;
}

void gpiod_chip_iter_free(gpiod_chip_iter* iter) {
    if (iter->next > 0) {
        --iter->next;
    }
    gpiod_chip_iter_free_noclose(iter);
}

gpiod_chip* gpiod_chip_iter_next_noclose(gpiod_chip_iter* iter) {
    return iter->next < iter->chips.size() ? iter->chips[iter->next++] : nullptr;
}

gpiod_chip* gpiod_chip_iter_next(gpiod_chip_iter* iter) {
    if (iter->next > 0) {
        gpiod_chip_close(iter->chips[iter->next - 1]);
        iter->chips.erase(iter->chips.begin(), iter->chips.begin() + static_cast<std::ptrdiff_t>(iter->next));
        iter->next = 0;
    }
    return gpiod_chip_iter_next_noclose(iter);
}

gpiod_line_iter* gpiod_line_iter_new(gpiod_chip* chip) {
    auto lines = std::make_unique<gpiod_line_iter>();
    for (unsigned offset = 0; offset < chip->lines.size(); ++offset) {
        gpiod_line* const line = gpiod_chip_get_line(chip, offset);
        if (line == nullptr) {
            return nullptr;
        }
        lines->lines.push_back(line);
    }
    return lines.release();
}

void gpiod_line_iter_free(gpiod_line_iter* iter) {
    delete iter;
}

gpiod_line* gpiod_line_iter_next(gpiod_line_iter* iter) {
    return iter->next < iter->lines.size() ? iter->lines[iter->next++] : nullptr;
}

const char* gpiod_version_string() {
    return "1.6 (kvsim)";
}
