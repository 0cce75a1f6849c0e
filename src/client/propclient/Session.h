#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "propclient/Conversation.h"
#include "propclient/Transport.h"
#include "propclient/Watch.h"

namespace propclient {

/// The topics of one sender, at the device itself or through a central broker.
struct Topics {
  Topics(const std::string& sender, const std::string& device);

  std::string changes(const std::string& group) const;

  /// Returns whether changes are announced on a topic.
  bool areChanges(const std::string& topic) const;

  std::string prefix;
  std::string requests;
  std::string replies;
  std::string presence;
};

/// The requests, replies and watches of one transport. For one thread alone.
class Session {
 public:
  using Done = std::function<void(const std::optional<std::string>& failure)>;

  /// `tellPresence` is called whenever it changes what is known of the service: present or not, or nothing.
  Session(
      Topics topics, Transport& transport, Clock::duration timeout, const std::string& uniqueText,
      std::function<void(std::optional<bool>)> tellPresence = [](std::optional<bool>) {});

  void ask(Request request, Clock::time_point asked) {
    conversation_.ask(std::move(request), asked + timeout_);
  }

  /// Takes the place of another watch. `done` is called once: when the present values are known, or with what
  /// keeps them from it, at the latest when no value has come for the time-out.
  void watch(std::set<std::string> names, std::function<void(const Change&)> tell, Done done);
  void unwatch();

  // As of `mqtt::Listener`.
  void opened();
  void lost();
  void subscribed(const std::vector<std::string>& refused);
  void received(const std::string& topic, const std::string& payload);

  void keepTime(Clock::time_point now);
  Deadline nextDeadline() const;

 private:
  std::vector<std::string> watchedTopics() const;
  void watchIsLate(Clock::time_point now);
  void watchIsDone(const std::optional<std::string>& failure);
  void setPresence(std::optional<bool> present);

  const Topics topics_;
  Transport& transport_;
  const Clock::duration timeout_;
  Conversation conversation_;
  const std::function<void(std::optional<bool>)> tellPresence_;
  std::optional<bool> present_;
  bool wasOpened_ = false;
  std::shared_ptr<Watch> watch_;
  Done watchDone_;  ///< Of `watch_`, until it is called.
  Clock::time_point watchDeadline_;
  std::size_t watchSize_ = 0;  ///< At the deadline before.
};

}  // namespace propclient
