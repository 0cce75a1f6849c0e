#pragma once

#include <optional>
#include <string>
#include <vector>

namespace propclient {

/// The way to the broker, as those see it who speak over it.
class Transport {
 public:
  virtual ~Transport() = default;

  /// Each message once, in order. What cannot be sent is lost with the connection.
  virtual void publish(const std::string& topic, const std::string& payload) = 0;

  /// For this connection and those after it. The answer comes as `subscribed`.
  virtual void subscribe(const std::vector<std::string>& topics) = 0;
  virtual void unsubscribe(const std::vector<std::string>& topics) = 0;
};

/// What comes from the broker. Never called from within a call of `Transport`.
class TransportListener {
 public:
  virtual ~TransportListener() = default;

  /// The broker has accepted the connection and all subscriptions; at first, and whenever it is back.
  virtual void opened() = 0;

  /// An attempt gave no connection. Others follow only where there was one before.
  virtual void failed(const std::string& reason) = 0;

  virtual void lost() = 0;

  /// All that was subscribed to is answered; `refused` is what the broker refuses, where it does.
  virtual void subscribed(const std::optional<std::string>& refused) = 0;

  virtual void received(const std::string& topic, const std::string& payload) = 0;
};

}  // namespace propclient
