#include "tool/messages.h"

#include <cstdio>
#include <sstream>

#include "layout/format.h"

namespace kvsim {

void printMessage(const std::string& text) {
    std::string message;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        message += "kvsim: " + line + "\n";
    }
    std::fputs(message.c_str(), stderr);
}

std::string printable(const std::string& name) {
    std::string text;
    for (const char letter : name) {
        const auto byte = static_cast<unsigned char>(letter);
        text += byte < ' ' || byte > '~' || byte == '\\' ? format("\\%03o", byte) : std::string{letter};
    }
    return text;
}

}  // namespace kvsim
