#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "propclient/Conversation.h"
#include "propclient/Transport.h"

namespace propclient {

/// The topics of one sender, at the device itself or through a central broker.
struct Topics {
  Topics(const std::string& sender, const std::string& device);

  std::string changes(const std::string& group) const;

  std::string prefix;
  std::string requests;
  std::string replies;
};

/// What is asked, answered and watched over one transport. For one thread alone.
class Session {
 public:
  using Clock = Conversation::Clock;

  Session(Topics topics, Transport& transport, Clock::duration timeout, const std::string& uniqueText);

  void ask(Request request, Clock::time_point asked) {
    conversation_.ask(std::move(request), asked + timeout_);
  }

  // As of `TransportListener`.
  void opened();
  void lost();
  void received(const std::string& topic, const std::string& payload);

  void keepTime(Clock::time_point now);
  std::optional<Clock::time_point> nextDeadline() const;

 private:
  const Topics topics_;
  Transport& transport_;
  const Clock::duration timeout_;
  Conversation conversation_;
};

}  // namespace propclient
