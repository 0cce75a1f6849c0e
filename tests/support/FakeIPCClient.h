#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "ipc/IIPCClient.h"
#include "ipc/IPCException.h"

namespace propertyservice::test {

/// A bus that remembers what it is told. Any thread may publish.
class FakeIPCClient : public ipc::IIPCClient {
 public:
  struct Message {
    std::string topic;
    std::string payload;
    int qos;

    bool operator==(const Message&) const = default;
  };

  std::vector<std::string> calls;  ///< Every call but `publish`, with its arguments.
  std::string failing;             ///< The operation that throws, by its name.
  std::string refusedTopic;        ///< Publishing on this topic throws.
  ipc::IIPCCallback* subscriber = nullptr;

  void connect(int cleanSession, int maxQos, const std::string& host) override {
    calls.push_back("connect " + std::to_string(cleanSession) + " " + std::to_string(maxQos) + " " + host);
    failIf("connect");
  }

  void disconnect() override {
    calls.emplace_back("disconnect");
    failIf("disconnect");
  }

  void publish(const std::string& topic, const std::string& payload, int qos) override {
    failIf("publish");
    if (topic == refusedTopic) {
      throw ipc::IPCException("refused");
    }
    const std::scoped_lock lock(mutex_);
    published_.push_back({topic, payload, qos});
  }

  void subscribe(const std::string& topicFilter, ipc::IIPCCallback* callback) override {
    calls.push_back("subscribe " + topicFilter);
    failIf("subscribe");
    subscriber = callback;
  }

  std::vector<Message> published() const {
    const std::scoped_lock lock(mutex_);
    return published_;
  }

  /// Throws when `operation` is the failing one.
  void failIf(const std::string& operation) const {
    if (operation == failing) {
      throw ipc::IPCException(operation + " failed");
    }
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Message> published_;  // guarded by mutex_
};

}  // namespace propertyservice::test
