#include <cerrno>
#include <cstdio>
#include <memory>

#include "gpio/gpiod_types.h"

// What the command-line tools gpiofind, gpioget and gpioset use.

namespace {

struct ChipCloser {
    void operator()(gpiod_chip* chip) const noexcept { gpiod_chip_close(chip); }
};
using ChipPtr = std::unique_ptr<gpiod_chip, ChipCloser>;

bool collect(gpiod_chip& chip, const unsigned* offsets, unsigned count, gpiod_line_bulk& bulk) {
    if (count == 0 || count > GPIOD_LINE_BULK_MAX_LINES) {
        return kvsim::gpio::refuse(EINVAL);
    }
    for (unsigned i = 0; i < count; ++i) {
        gpiod_line* const line = gpiod_chip_get_line(&chip, offsets[i]);
        if (line == nullptr) {
            return false;
        }
        gpiod_line_bulk_add(&bulk, line);
    }
    return true;
}

/** The flags of these calls lie in other bits than those of requests. */
int requestFlags(bool isActiveLow, int flags) {
    const auto translate = [flags](int from, int to) { return (flags & from) != 0 ? to : 0; };
    return (isActiveLow ? GPIOD_LINE_REQUEST_FLAG_ACTIVE_LOW : 0) |
           translate(GPIOD_CTXLESS_FLAG_OPEN_DRAIN, GPIOD_LINE_REQUEST_FLAG_OPEN_DRAIN) |
           translate(GPIOD_CTXLESS_FLAG_OPEN_SOURCE, GPIOD_LINE_REQUEST_FLAG_OPEN_SOURCE) |
           translate(GPIOD_CTXLESS_FLAG_BIAS_DISABLE, GPIOD_LINE_REQUEST_FLAG_BIAS_DISABLE) |
           translate(GPIOD_CTXLESS_FLAG_BIAS_PULL_DOWN, GPIOD_LINE_REQUEST_FLAG_BIAS_PULL_DOWN) |
           translate(GPIOD_CTXLESS_FLAG_BIAS_PULL_UP, GPIOD_LINE_REQUEST_FLAG_BIAS_PULL_UP);
}

}  // namespace

int gpiod_ctxless_find_line(const char* name, char* chipname, std::size_t chipname_size,
                            unsigned int* offset) {
    gpiod_chip_iter* const chips = gpiod_chip_iter_new();
    if (chips == nullptr) {
        return -1;
    }
    int result = 0;
    while (gpiod_chip* const chip = gpiod_chip_iter_next(chips)) {
        if (gpiod_line* const line = gpiod_chip_find_line(chip, name)) {
            (void)std::snprintf(chipname, chipname_size, "%s", gpiod_chip_name(chip));
            *offset = gpiod_line_offset(line);
            result = 1;
            break;
        }
    }
    gpiod_chip_iter_free(chips);
    return result;
}

int gpiod_ctxless_get_value_multiple_ext(const char* device, const unsigned int* offsets, int* values,
                                         unsigned int num_lines, bool active_low, const char* consumer,
                                         int flags) {
    const ChipPtr chip(gpiod_chip_open_lookup(device));
    gpiod_line_bulk bulk = GPIOD_LINE_BULK_INITIALIZER;
    const gpiod_line_request_config config = {.consumer = consumer,
                                              .request_type = GPIOD_LINE_REQUEST_DIRECTION_INPUT,
                                              .flags = requestFlags(active_low, flags)};
    return chip && collect(*chip, offsets, num_lines, bulk) &&
                   gpiod_line_request_bulk(&bulk, &config, nullptr) == 0
               ? gpiod_line_get_value_bulk(&bulk, values)
               : -1;
}

int gpiod_ctxless_set_value_multiple_ext(const char* device, const unsigned int* offsets, const int* values,
                                         unsigned int num_lines, bool active_low, const char* consumer,
                                         gpiod_ctxless_set_value_cb cb, void* data, int flags) {
    const ChipPtr chip(gpiod_chip_open_lookup(device));
    gpiod_line_bulk bulk = GPIOD_LINE_BULK_INITIALIZER;
    const gpiod_line_request_config config = {.consumer = consumer,
                                              .request_type = GPIOD_LINE_REQUEST_DIRECTION_OUTPUT,
                                              .flags = requestFlags(active_low, flags)};
    if (!chip || !collect(*chip, offsets, num_lines, bulk) ||
        gpiod_line_request_bulk(&bulk, &config, values) != 0) {
        return -1;
    }
    if (cb != nullptr) {
        cb(data);  // the lines are held until it returns
    }
    return 0;
}
