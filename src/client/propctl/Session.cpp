#include "client/propctl/Session.h"

#include <iomanip>
#include <sstream>

namespace propctl {

Session::Session(propclient::Options options, Output& output)
    : options_(std::move(options)), output_(output), client_(options_) {
  try {
    client_.connect();
  } catch (const propclient::ConnectionError& error) {
    throw Failure(ExitStatus::noAnswer, error.what());
  }
}

std::string Session::where() const {
  const std::string broker = options_.host + ':' + std::to_string(options_.port);
  return options_.device.empty() ? broker : options_.device + " at " + broker;
}

void Session::throwNoAnswer() const {
  std::ostringstream text;
  text << "no answer from " << where() << " within " << static_cast<double>(options_.timeout.count()) / 1000.0
       << " s: PropertyService is away, or the broker's access list does not let "
       << (options_.user.empty() ? "a client without --user" : '"' + options_.user + '"') << " ask as "
       << (options_.name.empty() ? (options_.user.empty() ? "itself" : '"' + options_.user + '"')
                                 : '"' + options_.name + '"');
  throw Failure(ExitStatus::noAnswer, text.str());
}

}  // namespace propctl
