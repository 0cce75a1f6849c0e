#pragma once

#include <chrono>
#include <cstddef>
#include <map>
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

  /// Return its resident memory, and the number of its open descriptors. REQUIRES: it runs.
  std::size_t residentKiB() const;
  std::size_t descriptors() const;

  /// The most it has had in memory since it began, or since `resetPeak`.
  std::size_t peakKiB() const;
  void resetPeak();

  /// The processor time that it has taken, by thread.
  std::map<std::string, double> processorMs() const;

  /// Waits until it takes no more processor time; false when that does not come.
  bool waitUntilIdle() const;

  /// Everything written so far.
  std::string output() const;

 private:
  std::string procFile(const std::string& name) const;
  std::size_t status(const std::string& field) const;
  bool reap(int options);

  const std::string outputPath_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// Runs a command to its end and returns its output; throws when it fails or takes too long.
std::string run(const std::vector<std::string>& command);

}  // namespace propertyservice::test
