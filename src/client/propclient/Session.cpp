#include "propclient/Session.h"

#include <utility>

#include "wire/Names.h"

namespace propclient {

namespace topic = propertyservice::topic;

Topics::Topics(const std::string& sender, const std::string& device)
    : prefix(device.empty() ? std::string() : propertyservice::topic::devicePrefix(device)),
      requests(prefix + topic::request(sender)),
      replies(prefix + topic::reply(sender)),
      presence(prefix + topic::online(propertyservice::kServiceName)) {}

std::string Topics::changes(const std::string& group) const {
  return prefix + topic::changes(group);
}

Session::Session(Topics topics, Transport& transport, Clock::duration timeout, const std::string& uniqueText,
                 std::function<void(std::optional<bool>)> tellPresence)
    : topics_(std::move(topics)),
      transport_(transport),
      timeout_(timeout),
      conversation_([this](const std::string& text) { transport_.publish(topics_.requests, text); },
                    uniqueText),
      tellPresence_(std::move(tellPresence)) {
  // In this order: the broker sends what it retains of the presence before it answers the second
  // subscription, so that it is known when the connection is open.
  transport_.subscribe({topics_.presence}, Transport::Need::optional);
  transport_.subscribe({topics_.replies}, Transport::Need::required);
}

void Session::watch(std::set<std::string> groups, std::function<void(const Change&)> tell, Done done) {
  unwatch();
  watchDone_ = std::move(done);
  watch_ = std::make_shared<Watch>(
      std::move(groups), std::move(tell), [this](Request request) { ask(std::move(request), Clock::now()); },
      [this] { watchIsDone(std::nullopt); });
  if (!wasOpened_) {
    watchIsDone("not connected");
    watch_.reset();
    return;
  }
  transport_.subscribe(watchedTopics(), Transport::Need::required);
}

void Session::unwatch() {
  if (const auto watch = watch_) {
    transport_.unsubscribe(watchedTopics());
    watch->stop();
    watch_.reset();
    watchIsDone("given up");
  }
}

void Session::opened() {
  wasOpened_ = true;
  conversation_.opened();
  if (const auto watch = watch_) {
    watch->opened();
  }
}

void Session::lost() {
  setPresence(std::nullopt);
  if (const auto watch = watch_) {
    watch->lost();
  }
  conversation_.lost();
}

void Session::subscribed(const std::vector<std::string>& refused) {
  const auto watch = watch_;
  if (!watch || !watchDone_) {
    return;
  }
  if (!refused.empty()) {
    watchIsDone("the broker refuses the subscription to " + refused.front());
    unwatch();
  } else {
    watch->opened();
  }
}

void Session::received(const std::string& topic, const std::string& payload) {
  if (topic == topics_.replies) {
    conversation_.received(payload);
  } else if (topic == topics_.presence) {
    setPresence(payload == "0" || payload == "1" ? std::optional(payload == "1") : std::nullopt);
  } else if (const auto watch = watch_) {
    watch->announced(payload, topic == topics_.changes(topic::kAllGroups));
  }
}

void Session::keepTime(Clock::time_point now) {
  conversation_.keepTime(now);
  if (const auto watch = watch_) {
    watch->keepTime(now);
  }
}

Deadline Session::nextDeadline() const {
  return earlier(conversation_.nextDeadline(), watch_ ? watch_->nextDeadline() : std::nullopt);
}

void Session::setPresence(std::optional<bool> present) {
  if (std::exchange(present_, present) != present) {
    conversation_.servicePresent(present.value_or(true));
    tellPresence_(present);
  }
}

std::vector<std::string> Session::watchedTopics() const {
  std::vector<std::string> topics;
  for (const std::string& group : watch_->announcements()) {
    topics.push_back(topics_.changes(group));
  }
  return topics;
}

void Session::watchIsDone(const std::optional<std::string>& failure) {
  if (const Done done = std::exchange(watchDone_, nullptr)) {
    done(failure);
  }
}

}  // namespace propclient
