#pragma once

#include <string>
#include <vector>

namespace propclient {

/// The way to the broker, as those see it who speak over it.
class Transport {
 public:
  virtual ~Transport() = default;

  /// Each message once, in order. What cannot be sent is lost with the connection.
  virtual void publish(const std::string& topic, const std::string& payload) = 0;

  enum class Need { required, optional };

  /// For this connection and those after it, each of which fails if the broker refuses a required one.
  virtual void subscribe(const std::vector<std::string>& topics, Need need) = 0;
  virtual void unsubscribe(const std::vector<std::string>& topics) = 0;
};

}  // namespace propclient
