#include "propclient/Session.h"

#include <utility>

#include "wire/Names.h"

namespace propclient {

namespace topic = propertyservice::topic;

Topics::Topics(const std::string& sender, const std::string& device)
    : prefix(device.empty() ? std::string() : "devices/" + device + '/'),
      requests(prefix + topic::request(sender)),
      replies(prefix + topic::reply(sender)) {}

std::string Topics::changes(const std::string& group) const {
  return prefix + topic::changes(group);
}

Session::Session(Topics topics, Transport& transport, Clock::duration timeout, const std::string& uniqueText)
    : topics_(std::move(topics)),
      transport_(transport),
      timeout_(timeout),
      conversation_([this](const std::string& text) { transport_.publish(topics_.requests, text); },
                    uniqueText) {
  transport_.subscribe({topics_.replies});
}

void Session::opened() {
  conversation_.opened();
}

void Session::lost() {
  conversation_.lost();
}

void Session::received(const std::string& topic, const std::string& payload) {
  if (topic == topics_.replies) {
    conversation_.received(payload);
  }
}

void Session::keepTime(Clock::time_point now) {
  conversation_.keepTime(now);
}

std::optional<Session::Clock::time_point> Session::nextDeadline() const {
  return conversation_.nextDeadline();
}

}  // namespace propclient
