#include <algorithm>
#include <cerrno>
#include <span>
#include <string>
#include <sys/file.h>

#include "gpio/gpiod_types.h"

using kvsim::gpio::failWith;
using kvsim::gpio::refuse;

namespace {

constexpr std::size_t kMaxConsumerLength = 31;
constexpr const char* kNoConsumer = "?";

std::span<gpiod_line* const> linesOf(const gpiod_line_bulk& bulk) {
    return {bulk.lines, bulk.num_lines};
}

bool isOneChip(const gpiod_line_bulk& bulk) {
    const auto lines = linesOf(bulk);
    return !lines.empty() && std::ranges::all_of(lines, [&lines](const gpiod_line* line) {
        return &line->chip == &lines.front()->chip;
    });
}

/** Requested, and on one chip. */
bool requireRequested(const gpiod_line_bulk& bulk) {
    if (!isOneChip(bulk)) {
        return refuse(EINVAL);
    }
    return std::ranges::all_of(linesOf(bulk), [](const gpiod_line* line) { return bool(line->held); }) ||
           refuse(EPERM);
}

bool isActiveLow(const gpiod_line& line) {
    return (line.flags & GPIOD_LINE_REQUEST_FLAG_ACTIVE_LOW) != 0;
}

bool setLevel(const gpiod_line& line, int value) {
    return kvsim::gpio::writeLine(line.file("value"), (value != 0) != isActiveLow(line) ? "1" : "0");
}

bool setDirection(gpiod_line& line, bool isOutput) {
    line.isOutput = isOutput;
    return kvsim::gpio::writeLine(line.file("direction"), isOutput ? "output" : "input");
}

bool setConsumer(gpiod_line& line, const std::string& consumer) {
    line.consumer = consumer;
    return kvsim::gpio::writeLine(line.file("consumer"), consumer);
}

/** "ACTION 13=1 12=0 CONSUMER", the values only where they are given. */
bool record(const std::string& action, const gpiod_line_bulk& bulk, const int* values,
            const std::string& consumer = {}) {
    std::string text = action;
    for (std::size_t i = 0; i < bulk.num_lines; ++i) {
        text += " " + std::to_string(bulk.lines[i]->offset);
        if (values != nullptr) {
            text += values[i] != 0 ? "=1" : "=0";
        }
    }
    text += consumer.empty() ? "" : " " + consumer;
    return kvsim::gpio::appendLine(bulk.lines[0]->chip.path + "/history", text);
}

bool hold(gpiod_line& line) {
    kv::os::UniqueFd folder = kv::os::openFile(line.folder, O_RDONLY | O_DIRECTORY);
    if (!folder) {
        return false;
    }
    if (::flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
        return refuse(errno == EWOULDBLOCK ? EBUSY : errno);
    }
    line.held = std::move(folder);
    return true;
}

void release(gpiod_line& line) {
    (void)setConsumer(line, "");  // the machine may have lost the file; the lock ends in any case
    line.held.reset();
    line.flags = 0;
}

/** Releases those of the lines that are held, and records it. */
void releaseHeld(const gpiod_line_bulk& bulk) {
    gpiod_line_bulk held = GPIOD_LINE_BULK_INITIALIZER;
    for (gpiod_line* const line : linesOf(bulk)) {
        if (line->held) {
            release(*line);
            gpiod_line_bulk_add(&held, line);
        }
    }
    if (held.num_lines > 0) {
        (void)record("release", held, nullptr);
    }
}

/** Makes a line an output with this value, or an input. */
bool configure(gpiod_line& line, bool isOutput, int flags, int value) {
    line.flags = flags;
    return (!isOutput || setLevel(line, value)) && setDirection(line, isOutput);
}

/** The same with all lines. Without values, outputs are low. */
bool configure(const gpiod_line_bulk& bulk, bool isOutput, int flags, const int* values) {
    for (std::size_t i = 0; i < bulk.num_lines; ++i) {
        if (!configure(*bulk.lines[i], isOutput, flags, values == nullptr ? 0 : values[i])) {
            return false;
        }
    }
    return true;
}

/** A request's name in the history. Null for one of events: no line of these chips has an interrupt. */
const char* actionOf(int requestType) {
    switch (requestType) {
        case GPIOD_LINE_REQUEST_DIRECTION_AS_IS:
            return "request as-is";
        case GPIOD_LINE_REQUEST_DIRECTION_INPUT:
            return "request input";
        case GPIOD_LINE_REQUEST_DIRECTION_OUTPUT:
            return "request output";
        default:
            return nullptr;
    }
}

bool take(gpiod_line& line, const gpiod_line_request_config& config, const std::string& consumer, int value) {
    if (!hold(line) || !setConsumer(line, consumer)) {
        return false;
    }
    line.flags = config.flags;
    return config.request_type == GPIOD_LINE_REQUEST_DIRECTION_AS_IS ||
           configure(line, config.request_type == GPIOD_LINE_REQUEST_DIRECTION_OUTPUT, config.flags, value);
}

/** Line by line, as the kernel does it: where one can't be had, those before it were driven all the same. */
bool request(const gpiod_line_bulk& bulk, const gpiod_line_request_config& config, const int* values) {
    const char* const action = actionOf(config.request_type);
    if (action == nullptr) {
        return refuse(ENODEV);
    }
    const std::string consumer =
        std::string(config.consumer == nullptr ? kNoConsumer : config.consumer).substr(0, kMaxConsumerLength);
    const std::vector<int> low(bulk.num_lines);
    const int* const levels = values == nullptr ? low.data() : values;

    gpiod_line_bulk taken = bulk;
    unsigned& count = taken.num_lines;
    count = 0;
    while (count < bulk.num_lines && take(*bulk.lines[count], config, consumer, levels[count])) {
        ++count;
    }
    const int error = errno;
    const bool isOutput = config.request_type == GPIOD_LINE_REQUEST_DIRECTION_OUTPUT;
    if (count > 0 && !record(action, taken, isOutput ? levels : nullptr, consumer)) {
        return false;
    }
    return count == bulk.num_lines || refuse(error);
}

}  // namespace

int gpiod_line_request_bulk(gpiod_line_bulk* bulk, const gpiod_line_request_config* config,
                            const int* default_vals) {
    if (!isOneChip(*bulk)) {
        return failWith(EINVAL);
    }
    if (std::ranges::any_of(linesOf(*bulk), [](const gpiod_line* line) { return bool(line->held); })) {
        return failWith(EBUSY);
    }
    if (!request(*bulk, *config, default_vals)) {
        const int error = errno;
        releaseHeld(*bulk);
        return failWith(error);
    }
    return 0;
}

void gpiod_line_release_bulk(gpiod_line_bulk* bulk) {
    if (!isOneChip(*bulk)) {
        return;
    }
    releaseHeld(*bulk);
}

int gpiod_line_get_value_bulk(gpiod_line_bulk* bulk, int* values) {
    if (!requireRequested(*bulk)) {
        return -1;
    }
    for (std::size_t i = 0; i < bulk->num_lines; ++i) {
        std::string level;
        if (!kvsim::gpio::readLine(bulk->lines[i]->file("value"), level)) {
            return -1;
        }
        values[i] = static_cast<int>((level == "1") != isActiveLow(*bulk->lines[i]));
    }
    return 0;
}

int gpiod_line_set_value_bulk(gpiod_line_bulk* bulk, const int* values) {
    if (!requireRequested(*bulk)) {
        return -1;
    }
    for (std::size_t i = 0; i < bulk->num_lines; ++i) {
        gpiod_line& line = *bulk->lines[i];
        if (!line.isOutput) {
            return failWith(EPERM);
        }
        if (!setLevel(line, values[i])) {
            return -1;
        }
    }
    return record("set", *bulk, values) ? 0 : -1;
}

int gpiod_line_set_config_bulk(gpiod_line_bulk* bulk, int direction, int flags, const int* values) {
    if (!requireRequested(*bulk)) {
        return -1;
    }
    const bool isOutput = direction == GPIOD_LINE_REQUEST_DIRECTION_OUTPUT;
    if (direction == GPIOD_LINE_REQUEST_DIRECTION_AS_IS) {
        for (gpiod_line* const line : linesOf(*bulk)) {
            line->flags = flags;
        }
    } else if (!configure(*bulk, isOutput, flags, values)) {
        return -1;
    }
    return record(isOutput ? "configure output" : "configure", *bulk, isOutput ? values : nullptr) ? 0 : -1;
}

int gpiod_line_set_flags_bulk(gpiod_line_bulk* bulk, int flags) {
    return gpiod_line_set_config_bulk(bulk, GPIOD_LINE_REQUEST_DIRECTION_AS_IS, flags, nullptr);
}

int gpiod_line_set_direction_input_bulk(gpiod_line_bulk* bulk) {
    return isOneChip(*bulk) ? gpiod_line_set_config_bulk(bulk, GPIOD_LINE_REQUEST_DIRECTION_INPUT,
                                                         bulk->lines[0]->flags, nullptr)
                            : failWith(EINVAL);
}

int gpiod_line_set_direction_output_bulk(gpiod_line_bulk* bulk, const int* values) {
    return isOneChip(*bulk) ? gpiod_line_set_config_bulk(bulk, GPIOD_LINE_REQUEST_DIRECTION_OUTPUT,
                                                         bulk->lines[0]->flags, values)
                            : failWith(EINVAL);
}

/* ---- Events: a request for them fails, so there are none to wait for ---- */

int gpiod_line_event_wait_bulk(gpiod_line_bulk* /*bulk*/, const timespec* /*timeout*/,
                               gpiod_line_bulk* /*event_bulk*/) {
    return failWith(EPERM);
}

int gpiod_line_event_read(gpiod_line* /*line*/, gpiod_line_event* /*event*/) {
    return failWith(EPERM);
}

int gpiod_line_event_read_multiple(gpiod_line* /*line*/, gpiod_line_event* /*events*/,
                                   unsigned int /*num_events*/) {
    return failWith(EPERM);
}

int gpiod_line_event_get_fd(gpiod_line* /*line*/) {
    return failWith(EPERM);
}
