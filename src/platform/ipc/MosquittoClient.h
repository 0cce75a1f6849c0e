#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/IIPCClient.h"
#include "mqtt/Connection.h"

namespace ipc {

/// The bus over `mqtt::Connection`: one connection from each `connect` to the next `disconnect`, whose thread
/// is the callback thread, and the callbacks with their subscriptions, which outlast it.
class MosquittoClient : public IIPCClient, private mqtt::Listener {
 public:
  struct Options {
    std::string id;
    std::string host;  ///< Stands in for an empty one of `connect`.
    std::string credentialsPath{};
    std::string presenceTopic{};                 ///< Empty: presence is not announced.
    std::function<mqtt::Deadline()> sayAlive{};  ///< As of `IPCFactory`.
  };

  /// Throws `IPCException` for an `id` that MQTT does not allow.
  explicit MosquittoClient(Options options);
  ~MosquittoClient() override;

  void connect(int cleanSession, int maxQos, const std::string& host) override;
  void disconnect() override;
  void publish(const std::string& topic, const std::string& payload, int qos) override;
  void subscribe(const std::string& topicFilter, IIPCCallback* callback) override;

 private:
  struct Subscriber {
    IIPCCallback* callback;
    std::vector<std::string> topicFilters;
  };
  using Subscribers = std::vector<Subscriber>;

  std::shared_ptr<mqtt::Connection> connection();
  void discard(const std::shared_ptr<mqtt::Connection>& connection);

  // Of the callback thread, as of `mqtt::Listener`.
  void opened() override;
  void failed(const std::string& reason) override;
  void lost(const std::string& reason) override;
  void subscribed(const std::vector<std::string>& refused) override;
  void received(const mqtt::Message& message) override;
  void delivered(const std::string& topic) override;
  mqtt::Deadline turned() override;
  template <typename Call>
  void tell(const char* name, const std::string& topic, Call call);

  const Options options_;

  std::mutex mutex_;
  std::shared_ptr<mqtt::Connection> connection_;  ///< Guarded by mutex_.
  std::shared_ptr<const Subscribers> subscribers_ =
      std::make_shared<Subscribers>();  ///< Guarded by mutex_; replaced, never changed.

  // Of the callback thread, and of `connect` before it starts that.
  std::string broker_;
  bool wasOpen_ = false;
  std::string failure_;  ///< The latest reason why the connection is not back yet.
};

}  // namespace ipc
