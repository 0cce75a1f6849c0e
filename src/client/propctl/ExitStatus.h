#pragma once

#include <stdexcept>
#include <string>

namespace propctl {

enum class ExitStatus {
  done = 0,
  refused = 1,  ///< Refused or not found, by the daemon or by the file system.
  usage = 2,
  noAnswer = 3,  ///< Whether it was done is unknown.
};

/// The status of two things together.
inline ExitStatus worse(ExitStatus one, ExitStatus other) {
  return static_cast<int>(one) < static_cast<int>(other) ? other : one;
}

/// Ends the command. `what` is one line that says what to do.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}

  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace propctl
