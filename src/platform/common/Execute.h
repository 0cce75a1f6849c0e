#pragma once

#include <string>

namespace os {

struct ExecuteResult {
  int status;          ///< The exit status; 128 + the signal's number when a signal ended the shell.
  bool timedOut;       ///< The process group was killed at the time-out.
  std::string output;  ///< Standard output and error as they came, up to 1 MiB; the rest is dropped.
};

/// Runs `command` by /bin/sh in a process group of its own, standard input empty, with default signal
/// handling and no descriptor of this process but the three standard ones. Waits for its end; at the time-out
/// the whole group is killed. A process that the shell leaves behind runs on and is not waited for: what it
/// writes from then on is lost. Throws `std::system_error` when the shell cannot be started, and
/// after `killCommands`. Safe from any
/// thread.
ExecuteResult execute(const std::string& command, unsigned timeoutMs);

/// Kills the process group of each command that `execute` waits for. That `execute` and all later ones throw
/// `std::system_error`, so that nobody takes a command that was cut off for one that ended. Safe from any
/// thread.
void killCommands();

/// Kills them as well, returns when their shells have ended, and has every `execute`, under way or to come,
/// block for ever. For a process that is about to exit.
void killCommandsForGood();

}  // namespace os
