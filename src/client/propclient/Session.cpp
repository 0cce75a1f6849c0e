#include "propclient/Session.h"

#include <utility>

#include "wire/Names.h"

namespace propclient {

namespace topic = propertyservice::topic;

namespace {

/// The announcements of every group, each property by itself. The message with all changes of a request may
/// be longer than the broker lets pass.
constexpr const char* kAllAnnouncements = "+/any";

}  // namespace

Topics::Topics(const std::string& sender, const std::string& device)
    : prefix(device.empty() ? std::string() : propertyservice::topic::devicePrefix(device)),
      requests(prefix + topic::request(sender)),
      replies(prefix + topic::reply(sender)),
      presence(prefix + topic::online(propertyservice::kServiceName)) {}

std::string Topics::changes(const std::string& group) const {
  return prefix + topic::changes(group);
}

bool Topics::areChanges(const std::string& topic) const {
  const std::string pattern = changes("");
  const std::size_t end = pattern.find_last_of('/');
  return topic.starts_with(pattern.substr(0, end)) && topic.ends_with(pattern.substr(end));
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

void Session::watch(std::set<std::string> names, std::function<void(const Change&)> tell, Done done) {
  unwatch();
  watchDone_ = std::move(done);
  watchDeadline_ = Clock::now() + timeout_;
  watchSize_ = 0;
  watch_ = std::make_shared<Watch>(
      std::move(names), std::move(tell), [this](Request request) { ask(std::move(request), Clock::now()); },
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
    if (const auto watch = watch_; watch && present_ == true) {
      watch->serviceIsBack();
    }
  } else if (const auto watch = watch_; watch && topics_.areChanges(topic)) {
    watch->announced(payload, topic == topics_.changes(topic::kAllGroups));
  }
}

void Session::keepTime(Clock::time_point now) {
  conversation_.keepTime(now);
  if (const auto watch = watch_) {
    watch->keepTime(now);
  }
  if (watchDone_ && watchDeadline_ <= now) {
    watchIsLate(now);
  }
}

void Session::watchIsLate(Clock::time_point now) {
  if (watch_->size() > watchSize_) {
    watchSize_ = watch_->size();
    watchDeadline_ = now + timeout_;
  } else {
    watchIsDone(present_ == false ? "the daemon is away" : "the daemon does not answer");
    unwatch();
  }
}

Deadline Session::nextDeadline() const {
  const Deadline next = earlier(conversation_.nextDeadline(), watch_ ? watch_->nextDeadline() : std::nullopt);
  return watchDone_ ? earlier(next, watchDeadline_) : next;
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
  return topics.empty() ? std::vector{topics_.prefix + kAllAnnouncements} : topics;
}

void Session::watchIsDone(const std::optional<std::string>& failure) {
  if (const Done done = std::exchange(watchDone_, nullptr)) {
    done(failure);
  }
}

}  // namespace propclient
