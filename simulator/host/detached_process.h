#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "os/unique_fd.h"

namespace kvsim {

/** What one process sends another in one piece. */
struct Message {
    std::string text;
    std::vector<kv::os::UniqueFd> descriptors;
};

/** At most 4 KiB of text and 16 descriptors. Throws std::system_error where the other side has gone. */
void sendMessage(int connection, const std::string& text, const std::vector<int>& descriptors);

/** Waits for a message. Empty where the other side has gone without sending one. */
std::optional<Message> receiveMessage(int connection);

/** The two ends of a connection for messages. Throws std::system_error. */
std::pair<kv::os::UniqueFd, kv::os::UniqueFd> makeConnection();

/**
 * Starts a process that shares nothing with this one but a connection: it has no terminal, no open files and
 * default signals, and it is nobody's child, so that whoever waits for all children never meets it. It runs
 * the body and ends.
 *
 * Returns this side of the connection. Throws std::system_error.
 */
kv::os::UniqueFd startDetached(const std::function<void(int connection)>& body);

}  // namespace kvsim
