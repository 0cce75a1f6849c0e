#include "propclient/Devices.h"

#include <future>
#include <random>
#include <utility>

#include "propclient/Clock.h"
#include "propclient/Settings.h"
#include "wire/Names.h"

namespace propclient {

namespace {

std::string serialIn(const std::string& presenceTopic) {
  const std::size_t start = presenceTopic.find('/') + 1;
  return presenceTopic.substr(start, presenceTopic.find('/', start) - start);
}

/// Reads what the broker retains. Since nothing marks the end of that, the reader then sends a message to a
/// branch of its own, which arrives after everything retained.
class PresenceReader : private mqtt::Listener {
 public:
  PresenceReader(const Options& options, const std::string& uniqueText)
      : ownTopic_(propertyservice::topic::presence(options.name)),
        mark_(uniqueText),
        connection_(settingsOf(options, options.name + '-' + uniqueText), *this) {}

  std::map<std::string, Presence> read(Clock::duration timeout) {
    const auto deadline = Clock::now() + timeout;
    connection_.subscribe(propertyservice::topic::presence("+"));
    // A central broker of an earlier version may refuse to tell.
    connection_.subscribe(propertyservice::topic::servicePresence("+"), true);
    try {
      connection_.connect();
    } catch (const mqtt::Error& error) {
      throw ConnectionError(error.what());
    }
    auto devices = allDevices_.get_future();
    if (devices.wait_until(deadline) != std::future_status::ready) {
      throw ConnectionError("no list of devices in time; does the broker let this client write and read " +
                            ownTopic_ + '?');
    }
    return devices.get();
  }

 private:
  void opened() override { connection_.publish(ownTopic_, mark_, kQosOfRequests); }
  void failed(const std::string& /*reason*/) override {}
  void lost(const std::string& /*reason*/) override {
    devices_.clear();
    services_.clear();
  }
  void subscribed(const std::vector<std::string>& /*refused*/) override {}

  void received(const mqtt::Message& message) override {
    if (message.topic == ownTopic_ && message.payload == mark_) {
      if (!std::exchange(ended_, true)) {
        for (auto& [serial, presence] : devices_) {
          const auto service = services_.find(serial);
          presence.service = service != services_.end() ? std::optional(service->second) : std::nullopt;
        }
        allDevices_.set_value(devices_);
      }
    } else if (message.payload == "0" || message.payload == "1") {
      const std::string serial = serialIn(message.topic);
      const bool isThere = message.payload == "1";
      if (message.topic == propertyservice::topic::presence(serial)) {
        devices_[serial].connected = isThere;
      } else {
        services_[serial] = isThere;
      }
    }
  }

  const std::string ownTopic_;
  const std::string mark_;
  std::map<std::string, Presence> devices_;
  std::map<std::string, bool> services_;  ///< Also of devices that were taken off the list.
  bool ended_ = false;
  std::promise<std::map<std::string, Presence>> allDevices_;
  mqtt::Connection connection_;
};

}  // namespace

std::map<std::string, Presence> knownDevices(const Options& options) {
  return PresenceReader(options, std::to_string(std::random_device()())).read(options.timeout);
}

}  // namespace propclient
