#pragma once

#include <string>

#include "ipc/IIPCCallback.h"

namespace ipc {

/// One client of the message bus. Every operation may throw `IPCException` and may be called from any thread;
/// `connect` and `disconnect` must not be called from a callback.
class IIPCClient {
 public:
  virtual ~IIPCClient() = default;

  /// Connects to the broker on `host` (the one given to the factory where it is empty) and returns once it
  /// has accepted the connection and the subscriptions made so far; throws when it refuses or stays silent
  /// for 10 s, and as soon as another thread calls `disconnect`. A connection that breaks later is reported
  /// through `IIPCCallback::connectionLost` and comes back by itself, with its subscriptions and what is
  /// unacknowledged. `cleanSession` 0 has the broker keep the session while this client is away; `maxQos` is
  /// the greatest quality of service of its subscriptions. After it has thrown it may be called again.
  virtual void connect(int cleanSession, int maxQos, const std::string& host) = 0;

  /// Waits, 2 s at most, until what was published is acknowledged, and disconnects. No callback runs once it
  /// has returned. Without a connection it does nothing.
  virtual void disconnect() = 0;

  /// Hands a message over and returns at once. Throws for a topic that MQTT does not allow, before `connect`
  /// and after `disconnect`, and when more than 64 MiB (topics and payloads) would wait for the broker. While
  /// a lost connection is on its way back the message waits; at `qos` 1 and 2 it survives a loss while it is
  /// under way. Messages stay in order.
  virtual void publish(const std::string& topic, const std::string& payload, int qos) = 0;

  /// Has what arrives on `topicFilter` handed to `callback`, now and after every reconnect. The callback must
  /// outlive the connection. Allowed before `connect`, which throws if the broker refuses the subscription; a
  /// later refusal is logged as an error. Throws for a filter that MQTT does not allow.
  virtual void subscribe(const std::string& topicFilter, IIPCCallback* callback) = 0;
};

}  // namespace ipc
