#include "propclient/Devices.h"

#include <algorithm>
#include <poll.h>
#include <random>

#include "propclient/Connection.h"
#include "wire/Names.h"

namespace propclient {

namespace {

std::string serialIn(const std::string& presenceTopic) {
  const std::size_t start = presenceTopic.find('/') + 1;
  return presenceTopic.substr(start, presenceTopic.find('/', start) - start);
}

/// Reads what the broker retains. Where that ends, it does not say: so the reader sends a message to a branch
/// of its own, which comes behind everything retained.
class PresenceReader : public TransportListener {
 public:
  PresenceReader(const Options& options, const std::string& uniqueText)
      : ownTopic_(propertyservice::topic::presence(options.name)),
        mark_(uniqueText),
        connection_(options, options.name + '-' + uniqueText, *this) {}

  std::map<std::string, bool> read(Clock::duration timeout) {
    const auto deadline = Clock::now() + timeout;
    connection_.subscribe({propertyservice::topic::presence("+")});
    connection_.open();
    while (!ended_ && failure_.empty()) {
      const auto now = Clock::now();
      if (now >= deadline) {
        throw ConnectionError("no list of devices in time; does the broker let this client write and read " +
                              ownTopic_ + '?');
      }
      const auto until = std::min(deadline, connection_.nextTurn().value_or(deadline));
      const auto patience = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
      pollfd descriptor{connection_.socket(), connection_.awaitedEvents(), 0};
      poll(&descriptor, 1, static_cast<int>(std::max<decltype(patience)>(patience, 0)));
      connection_.turn(descriptor.revents);
    }
    if (!ended_) {
      throw ConnectionError(failure_);
    }
    return std::move(devices_);
  }

 private:
  void opened() override { connection_.publish(ownTopic_, mark_); }
  void failed(const std::string& reason) override { failure_ = reason; }
  void lost() override { failure_ = "the connection to the broker broke"; }
  void subscribed(const std::optional<std::string>& refused) override {
    if (refused) {
      failure_ = *refused;
    }
  }

  void received(const std::string& topic, const std::string& payload) override {
    if (topic == ownTopic_ && payload == mark_) {
      ended_ = true;
    } else if (payload == "0" || payload == "1") {
      devices_[serialIn(topic)] = payload == "1";
    }
  }

  const std::string ownTopic_;
  const std::string mark_;
  Connection connection_;
  std::map<std::string, bool> devices_;
  bool ended_ = false;
  std::string failure_;
};

}  // namespace

std::map<std::string, bool> knownDevices(const Options& options) {
  return PresenceReader(options, std::to_string(std::random_device()())).read(options.timeout);
}

}  // namespace propclient
