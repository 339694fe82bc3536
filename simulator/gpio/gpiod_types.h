#pragma once

#include <gpiod.h>
#include <memory>
#include <string>
#include <vector>

#include "os/unique_fd.h"

/** What gpiod.h leaves open. A line belongs to its chip and is made when it is first asked for. */
struct gpiod_line {
    gpiod_line(gpiod_chip& itsChip, unsigned itsOffset);

    /** "/run/kvsim/gpio/gpiochip0/lines/5/" and a file's name */
    [[nodiscard]] std::string file(const char* fileName) const;

    gpiod_chip& chip;
    const unsigned offset;
    std::string folder;

    // As of the last update.
    std::string name = {};
    std::string consumer = {};
    bool isOutput = false;

    /** The line's folder, locked while the line is requested: the lock ends with the process too. */
    kv::os::UniqueFd held = {};
    /** Flags of the request; 0 while there is none. */
    int flags = 0;
};

struct gpiod_chip {
    std::string path;
    std::string name;
    std::string label;
    std::vector<std::unique_ptr<gpiod_line>> lines;
};

namespace kvsim::gpio {

// These leave the reason of a failure in errno.

/** The first line of a file. */
bool readLine(const std::string& path, std::string& text);
/** Replaces a file's text by one line. */
bool writeLine(const std::string& path, const std::string& text);
bool appendLine(const std::string& path, const std::string& text);

/** Sets errno. @return false */
bool refuse(int error);
/** Sets errno. @return a C function's result of failure */
int failWith(int error);

}  // namespace kvsim::gpio
