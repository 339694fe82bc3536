#include "gpio/gpiod_types.h"

// What programs ask about a line.

gpiod_line::gpiod_line(gpiod_chip& itsChip, unsigned itsOffset)
    : chip(itsChip), offset(itsOffset), folder(itsChip.path + "/lines/" + std::to_string(itsOffset)) {}

std::string gpiod_line::file(const char* fileName) const {
    return folder + "/" + fileName;
}

int gpiod_line_update(gpiod_line* line) {
    std::string direction;
    if (!kvsim::gpio::readLine(line->file("name"), line->name) ||
        !kvsim::gpio::readLine(line->file("consumer"), line->consumer) ||
        !kvsim::gpio::readLine(line->file("direction"), direction)) {
        return -1;
    }
    line->isOutput = direction == "output";
    return 0;
}

unsigned int gpiod_line_offset(gpiod_line* line) {
    return line->offset;
}

const char* gpiod_line_name(gpiod_line* line) {
    return line->name.empty() ? nullptr : line->name.c_str();
}

const char* gpiod_line_consumer(gpiod_line* line) {
    return line->consumer.empty() ? nullptr : line->consumer.c_str();
}

int gpiod_line_direction(gpiod_line* line) {
    return line->isOutput ? GPIOD_LINE_DIRECTION_OUTPUT : GPIOD_LINE_DIRECTION_INPUT;
}

int gpiod_line_active_state(gpiod_line* line) {
    return (line->flags & GPIOD_LINE_REQUEST_FLAG_ACTIVE_LOW) != 0 ? GPIOD_LINE_ACTIVE_STATE_LOW
                                                                   : GPIOD_LINE_ACTIVE_STATE_HIGH;
}

int gpiod_line_bias(gpiod_line* line) {
    if ((line->flags & GPIOD_LINE_REQUEST_FLAG_BIAS_DISABLE) != 0) {
        return GPIOD_LINE_BIAS_DISABLE;
    }
    if ((line->flags & GPIOD_LINE_REQUEST_FLAG_BIAS_PULL_UP) != 0) {
        return GPIOD_LINE_BIAS_PULL_UP;
    }
    return (line->flags & GPIOD_LINE_REQUEST_FLAG_BIAS_PULL_DOWN) != 0 ? GPIOD_LINE_BIAS_PULL_DOWN
                                                                       : GPIOD_LINE_BIAS_AS_IS;
}

bool gpiod_line_is_used(gpiod_line* line) {
    return !line->consumer.empty();
}

bool gpiod_line_is_open_drain(gpiod_line* line) {
    return (line->flags & GPIOD_LINE_REQUEST_FLAG_OPEN_DRAIN) != 0;
}

bool gpiod_line_is_open_source(gpiod_line* line) {
    return (line->flags & GPIOD_LINE_REQUEST_FLAG_OPEN_SOURCE) != 0;
}

bool gpiod_line_is_requested(gpiod_line* line) {
    return static_cast<bool>(line->held);
}
