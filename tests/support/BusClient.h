#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include "support/Eventually.h"

struct mosquitto;

namespace propertyservice::test {

/// A client of the device's bus, on loopback: asks the service and collects what is sent to it.
class BusClient {
 public:
  struct Message {
    std::string topic;
    std::string payload;
  };

  /// Connects, and listens to its replies and to `topics`. Throws when the broker does not answer.
  /// With a password it proves to be `name` to the broker.
  explicit BusClient(std::string name, const std::vector<std::string>& topics = {}, int port = 1883,
                     const std::string& password = "");
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  void publish(const std::string& topic, const std::string& payload, int qos = 1, bool retained = false);

  /// Sends a request from this client.
  void send(const std::string& payload, int qos = 1) { publish(name_ + "/prop-service", payload, qos); }
  void sendRequest(const Json::Value& request);

  /// Sends a request and waits for the next reply; null when none comes. The text is the reply's own, line
  /// end and all.
  std::string requestText(const std::string& payload, std::chrono::milliseconds patience = kPatience);
  Json::Value request(const Json::Value& request);

  /// True when the service answers the question whether it is alive.
  bool serviceIsAlive(std::chrono::milliseconds patience);

  /// Everything received so far on a topic (replies: "prop-service/<name>").
  std::vector<std::string> received(const std::string& topic);
  std::vector<Message> received();
  bool waitForMessages(const std::string& topic, std::size_t count,
                       std::chrono::milliseconds patience = kPatience);
  void forget();
  /// Everything received since it was taken last, which is forgotten.
  std::vector<Message> take();

  /// Returns when everything that the service sent before is here: asks it a question and waits for the
  /// answer.
  void settle();

  std::string replyTopic() const { return "prop-service/" + name_; }

 private:
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience);
  std::size_t count(const std::string& topic) const;

  struct Destroy {
    void operator()(mosquitto* client) const;
  };

  const std::string name_;

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::vector<Message> messages_;
  int openSubscriptions_ = 0;
  int answer_ = -1;  ///< The broker's answer to the first connect; 0 is yes.

  std::unique_ptr<mosquitto, Destroy> client_;  ///< Last: its thread uses all of the above.
};

}  // namespace propertyservice::test
