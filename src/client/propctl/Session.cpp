#include "client/propctl/Session.h"

#include <iomanip>
#include <sstream>

#include "client/propctl/Text.h"

namespace propctl {

namespace {

/// Why there is no connection, and what to do about it.
std::string withAdvice(std::string reason, const propclient::Options& options) {
  reason.erase(reason.find_last_not_of('.') + 1);
  const std::string advice = adviceOnRefusal(reason, options);
  return escaped(reason) + (advice.empty() ? "; --host and --port say where it is" : advice);
}

}  // namespace

std::string adviceOnRefusal(const std::string& reason, const propclient::Options& options) {
  if (reason.find("not authori") == std::string::npos &&
      reason.find("bad user name or password") == std::string::npos) {
    return "";
  }
  if (options.user.empty()) {
    return "; no user was given: --user and --password-file say who asks";
  }
  const std::string user = '"' + escaped(options.user) + '"';
  return options.password.empty()
             ? "; " + user + " came without a password: --password-file names a file with it"
             : "; the password of " + user + " is wrong, or there is no such user";
}

Session::Session(propclient::Options options, Output& output)
    : options_(std::move(options)), output_(output), client_(options_) {
  try {
    client_.connect();
  } catch (const propclient::ConnectionError& error) {
    throw Failure(ExitStatus::noAnswer, withAdvice(error.what(), options_));
  }
}

std::string Session::where() const {
  const std::string broker = escaped(options_.host) + ':' + std::to_string(options_.port);
  return options_.device.empty() ? broker : escaped(options_.device) + " at " + broker;
}

void Session::throwNoAnswer(Length length) const {
  std::ostringstream text;
  text << "no answer from " << where() << " within " << static_cast<double>(options_.timeout.count()) / 1000.0
       << " s: " << (options_.device.empty() ? "" : "the device or its ")
       << "PropertyService is away, or the broker's access list does not let "
       << (options_.user.empty() ? "this client" : '"' + escaped(options_.user) + '"') << " ask";
  if (const std::string& name = options_.name.empty() ? options_.user : options_.name; !name.empty()) {
    text << " as \"" << escaped(name) << '"';
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
