#pragma once

namespace kv::os {

/**
 * Runs a command in a shell and waits for its end, as system(3) does, but SIGINT and SIGQUIT keep their
 * effect on this process. A handler that runs meanwhile does not end the wait.
 *
 * @return the shell's wait status, 0 when the command succeeded; -1 with errno set when it cannot be started
 * or waited for
 */
int runShell(const char* command);

}  // namespace kv::os
