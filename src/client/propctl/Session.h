#pragma once

#include <string>

#include "client/propclient/Client.h"
#include "client/propctl/ExitStatus.h"
#include "client/propctl/Output.h"

namespace propctl {

/// What to do about a broker that has refused a connection for `reason`, to be added to it; empty for any
/// other reason.
std::string adviceOnRefusal(const std::string& reason, const propclient::Options& options);

/// What a command works with: a connection and a place to talk.
class Session {
 public:
  /// Connects. Throws `Failure`.
  Session(propclient::Options options, Output& output);

  propclient::Client& client() { return client_; }
  Output& output() { return output_; }

  /// The broker as "HOST:PORT", with the device behind it.
  std::string where() const;

  /// How long an answer may become: as a value, or as all values of the device.
  enum class Length { bounded, unbounded };

  /// The answer, unless there is none: then throws `Failure` with what may be the cause.
  template <typename T>
  const T& answered(const T& answer, Length length = Length::bounded) const {
    if (answer.status == propclient::Status::noAnswer) {
      throwNoAnswer(length);
    }
    if (answer.status == propclient::Status::away) {
      throwAway();
    }
    return answer;
  }

  [[noreturn]] void throwNoAnswer(Length length = Length::bounded) const;
  [[noreturn]] void throwAway() const;

 private:
  const propclient::Options options_;
  Output& output_;
  propclient::Client client_;
};

}  // namespace propctl
