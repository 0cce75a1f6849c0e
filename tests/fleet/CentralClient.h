#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <json/value.h>

#include "support/Eventually.h"

struct mosquitto;

namespace propertyservice::test {

/// Files with which a client proves itself to the centre.
struct Certificate {
  std::string authority;  ///< Of the centre.
  std::string certificate;
  std::string key;
};

/// A client of the central broker.
class CentralClient {
 public:
  struct Message {
    std::string topic;
    std::string payload;
    bool retained;
  };

  /// Connects by TLS and subscribes to `topics`. Throws when the centre refuses it. `name` is the one in the
  /// certificate.
  CentralClient(std::string name, int port, const Certificate& certificate,
                const std::vector<std::string>& topics = {}, const std::string& clientIdentifier = "");
  CentralClient(const CentralClient&) = delete;
  CentralClient& operator=(const CentralClient&) = delete;

  /// Returns once the centre has acknowledged it, as it does what it refuses, too.
  void publish(const std::string& topic, const std::string& payload, bool retained = false);

  /// Asks a device for something as `name`.
  void ask(const std::string& serial, const Json::Value& request);
  /// Asks and waits for the next reply of this device; null when none comes.
  Json::Value request(const std::string& serial, const Json::Value& request,
                      std::chrono::milliseconds patience = kPatience);
  std::vector<Json::Value> replies(const std::string& serial);

  std::vector<Message> received();
  std::vector<std::string> received(const std::string& topic);
  bool waitFor(const std::string& topic, const std::string& payload,
               std::chrono::milliseconds patience = kPatience);
  void forget();

  /// Returns when everything that the centre had for this client is here.
  /// REQUIRES: a controller that listens to "devices/+/online".
  void settle();

 private:
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience);

  struct Destroy {
    void operator()(mosquitto* client) const;
  };

  const std::string name_;

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::vector<Message> messages_;
  int openSubscriptions_ = 0;
  int lastAcknowledged_ = 0;
  int answer_ = -1;  ///< The centre's answer to the connect; 0 is yes.

  int settled_ = 0;
  std::unique_ptr<mosquitto, Destroy> client_;  ///< Last: its thread uses all of the above.
};

}  // namespace propertyservice::test
