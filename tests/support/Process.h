#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/Eventually.h"

namespace propertyservice::test {

/// A child process whose standard output and error go to one file. Killed with its owner, at the latest with
/// the test.
class Process {
 public:
  /// Starts `command` (looked up in PATH) at once; `outputPath` is emptied first.
  Process(const std::vector<std::string>& command, std::string outputPath);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  bool running();

  void signal(int number);

  /// The exit status, or minus the number of the signal that ended it; nothing when it runs on after
  /// `patience`.
  std::optional<int> wait(std::chrono::milliseconds patience = kPatience);

  /// SIGKILL, and waits for the end.
  void kill();

  /// Everything written so far.
  std::string output() const;

 private:
  bool reap(int options);

  const std::string outputPath_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// Runs a command to its end and returns its output; throws when it fails or takes too long.
std::string run(const std::vector<std::string>& command);

}  // namespace propertyservice::test
