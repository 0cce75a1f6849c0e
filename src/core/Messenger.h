#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/IMessenger.h"
#include "ipc/IIPCClient.h"
#include "queue/ActiveQueue.h"

namespace propertyservice {

/// Publishes changes on "prop-service-<group>/any" and "prop-service-groupnotify/any", in the order of their
/// announcement, from a worker thread of its own. A message that the bus refuses is logged and dropped.
///
/// `notify` and `notifyList` belong to the thread that owns the properties. `stop` may come from another one
/// meanwhile; the destructor implies it.
class Messenger final : public IMessenger {
 public:
  explicit Messenger(std::shared_ptr<ipc::IIPCClient> client);

  std::pair<std::string, Json::Value> notify(Property& property, bool alsoAll) override;
  void notifyList(std::vector<Property>& properties) override;
  void publishGroup(const std::string& group, std::string payload) override;
  void publishAll(std::string payload) override;
  void stop() override;

 private:
  using Message = std::pair<std::string, std::string>;  // topic, payload

  void announce(Message message);
  void publish(const Message& message) const;

  const std::shared_ptr<ipc::IIPCClient> client_;
  const std::unique_ptr<common::ActiveQueue<Message>> queue_;
  std::mutex stopping_;  ///< Held while `stop` empties the queue; a later announcement waits for it.
};

}  // namespace propertyservice
