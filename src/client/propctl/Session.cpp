#include "client/propctl/Session.h"

#include <iomanip>
#include <sstream>

namespace propctl {

namespace {

/// Why there is no connection, and what to do about it.
std::string withAdvice(std::string reason) {
  const bool isRefused = reason.find("authori") != std::string::npos;
  reason.erase(reason.find_last_not_of('.') + 1);
  return reason +
         (isRefused ? "; --user and --password-file say who asks" : "; --host and --port say where it is");
}

}  // namespace

Session::Session(propclient::Options options, Output& output)
    : options_(std::move(options)), output_(output), client_(options_) {
  try {
    client_.connect();
  } catch (const propclient::ConnectionError& error) {
    throw Failure(ExitStatus::noAnswer, withAdvice(error.what()));
  }
}

std::string Session::where() const {
  const std::string broker = options_.host + ':' + std::to_string(options_.port);
  return options_.device.empty() ? broker : options_.device + " at " + broker;
}

void Session::throwNoAnswer(Length length) const {
  std::ostringstream text;
  text << "no answer from " << where() << " within " << static_cast<double>(options_.timeout.count()) / 1000.0
       << " s: " << (options_.device.empty() ? "" : "the device or its ")
       << "PropertyService is away, or the broker's access list does not let "
       << (options_.user.empty() ? "this client" : '"' + options_.user + '"') << " ask";
  if (const std::string& name = options_.name.empty() ? options_.user : options_.name; !name.empty()) {
    text << " as \"" << name << '"';
  }
  if (options_.user.empty() && !options_.tls) {
    text << " without --user";
  }
  if (length == Length::unbounded) {
    text << ", or the answer is longer than the broker lets pass: ask for less at a time";
  }
  throw Failure(ExitStatus::noAnswer, text.str());
}

void Session::throwAway() const {
  throw Failure(ExitStatus::noAnswer, "PropertyService at " + where() + " is away: nothing was sent");
}

}  // namespace propctl
