#pragma once

#include <string>

namespace ipc {

/// The events of a bus client. All calls come on the bus client's one callback thread, one at a time.
/// An exception that leaves a call is caught by the bus client and logged as an error. A callback is told of
/// each lost connection, each delivery and each message that one of its subscriptions matches, once however
/// many subscriptions it has. Messages that the broker has kept (retained) are not told but logged as a
/// warning: a request was served when it was sent.
class IIPCCallback {
 public:
  virtual ~IIPCCallback() = default;

  /// The connection broke. The bus client is on its way to bring it back by itself.
  virtual void connectionLost(const std::string& cause) = 0;

  virtual void messageArrived(const std::string& topic, const std::string& payload) = 0;

  /// The broker has acknowledged a message that this client published on `topic`; one of QoS 0 was written.
  virtual void deliveryComplete(const std::string& topic) = 0;
};

}  // namespace ipc
