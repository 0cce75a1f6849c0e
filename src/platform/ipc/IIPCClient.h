#pragma once

#include <string>

#include "ipc/IIPCCallback.h"

namespace ipc {

/// One client of the message bus. Every operation may throw `IPCException` and may be called from any thread;
/// `connect` and `disconnect` must not be called from a callback.
class IIPCClient {
 public:
  virtual ~IIPCClient() = default;

  /// Connects to the broker on `host` and returns once it has accepted the connection and the subscriptions
  /// made so far; throws when it refuses or stays silent for 10 s. A connection that breaks later is reported
  /// through `IIPCCallback::connectionLost` and comes back by itself, with its subscriptions and what is
  /// unacknowledged. `cleanSession` 0 has the broker keep the session while this client is away; `maxQos` is
  /// the greatest quality of service of its subscriptions.
  virtual void connect(int cleanSession, int maxQos, const std::string& host) = 0;

  /// Waits, 2 s at most, until what was published is acknowledged, and disconnects. No callback runs once it
  /// has returned. Without a connection it does nothing.
  virtual void disconnect() = 0;

  /// Hands a message over and returns at once. Throws for a topic that MQTT does not allow and when more than
  /// 64 MiB wait for the broker. At `qos` 1 and 2 the message survives a loss of the connection.
  virtual void publish(const std::string& topic, const std::string& payload, int qos) = 0;

  /// Has what arrives on `topicFilter` handed to `callback`, now and after every reconnect. The callback must
  /// outlive the connection. Allowed before `connect`.
  virtual void subscribe(const std::string& topicFilter, IIPCCallback* callback) = 0;
};

}  // namespace ipc
