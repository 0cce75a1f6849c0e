#include "client/propctl/Session.h"

#include <sstream>

#include "client/propctl/Text.h"

namespace propctl {

namespace {

/// Returns the reason why the connection failed, and what to do about it.
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

std::vector<propclient::Columns> Session::list(const std::string& pattern,
                                               const std::vector<std::string>& columns,
                                               propclient::Field field) {
  bool isTold = false;
  auto listed = client_.list(pattern, columns, field, [&](std::size_t read, std::size_t all) {
    if (isTold = isTold || read < all; isTold) {
      output_.progress(std::to_string(read) + " of " + std::to_string(all) + " properties");
    }
  });
  if (isTold) {
    output_.progress("");
  }
  answered(listed);
  return std::move(listed.value);
}

void Session::throwNoAnswer(Effect effect) const {
  const std::optional<bool> present = client_.present();
  std::ostringstream text;
  text << "no answer from " << where() << " within " << static_cast<double>(options_.timeout.count()) / 1000.0
       << " s" << (effect == Effect::write ? "; the write may still be carried out" : "") << ": "
       << (options_.device.empty() ? "" : "the device or its ") << "PropertyService "
       << (!present   ? "is away"
           : *present ? "is busy or hangs"
                      : "has stopped meanwhile")
       << ", or the broker's access list does not let "
       << (options_.user.empty() ? "this client" : '"' + escaped(options_.user) + '"') << " ask";
  if (const std::string& name = options_.name.empty() ? options_.user : options_.name; !name.empty()) {
    text << " as \"" << escaped(name) << '"';
  }
  if (options_.user.empty() && !options_.tls) {
    text << " without --user";
  }
  throw Failure(ExitStatus::noAnswer, text.str());
}

void Session::throwAway(const std::string& what) const {
  throw Failure(ExitStatus::noAnswer, where() + ": PropertyService is not running; " + what);
}

}  // namespace propctl
