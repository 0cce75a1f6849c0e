#pragma once

#include <string>
#include <vector>

#include "client/propclient/Client.h"
#include "client/propctl/ExitStatus.h"
#include "client/propctl/Output.h"

namespace propctl {

/// Returns advice about a broker that has refused a connection for `reason`, to be added to it; empty for any
/// other reason.
std::string adviceOnRefusal(const std::string& reason, const propclient::Options& options);

/// The means of a command: a connection and an output.
class Session {
 public:
  /// Connects. Throws `Failure`.
  Session(propclient::Options options, Output& output);

  propclient::Client& client() { return client_; }
  Output& output() { return output_; }

  /// The broker as "HOST:PORT", with the device behind it.
  std::string where() const;

  /// Returns all that match, however many, and shows on a terminal how far it is. Throws as `answered` does.
  std::vector<propclient::Columns> list(const std::string& pattern, const std::vector<std::string>& columns,
                                        propclient::Field field = propclient::Field::key);

  enum class Effect { none, write };

  /// The answer, unless there is none: then throws `Failure` with what may be the cause.
  template <typename T>
  const T& answered(const T& answer, Effect effect = Effect::none) const {
    if (answer.status == propclient::Status::noAnswer) {
      throwNoAnswer(effect);
    }
    if (answer.status == propclient::Status::away) {
      throwAway();
    }
    return answer;
  }

  [[noreturn]] void throwNoAnswer(Effect effect) const;

  /// `what` says what that means for the command.
  [[noreturn]] void throwAway(const std::string& what = "nothing was sent") const;

 private:
  const propclient::Options options_;
  Output& output_;
  propclient::Client client_;
};

}  // namespace propctl
