#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "database/KeyPattern.h"
#include "propclient/Json.h"
#include "propclient/Transport.h"

namespace propclient {

/// The broker and the daemon behind a session. What is published is only noted; the test says when the daemon
/// serves it, and when what it sends arrives: replies in order, announcements in order, and each announcement
/// after the replies that left before the change.
class FakeDaemon : public Transport {
 public:
  struct Message {
    std::string topic;
    std::string payload;
  };

  void publish(const std::string& topic, const std::string& payload) override {
    requests.push_back({topic, payload});
  }
  void subscribe(const std::vector<std::string>& topics, Need /*need*/) override {
    subscriptions.insert(topics.begin(), topics.end());
  }
  void unsubscribe(const std::vector<std::string>& topics) override {
    for (const std::string& topic : topics) {
      subscriptions.erase(topic);
    }
  }

  /// Changes a value, or removes a "State." key, and leaves the announcements in its queue.
  void change(const std::string& key, const Json::Value& value) {
    if (value.isNull()) {
      values.erase(key);
    } else {
      values[key] = value.asString();
    }
    if (const std::size_t dot = key.find('.'); dot != std::string::npos) {
      std::string group = key.substr(0, dot);
      std::transform(group.begin(), group.end(), group.begin(), ::tolower);
      Json::Value one;
      one["param"] = key;
      one["value"] = value;
      announcements_.push_back({"prop-service-" + group + "/any", json::write(one)});
    }
    Json::Value all;
    all[key] = value;
    announcements_.push_back({"prop-service-groupnotify/any", json::write(all)});
  }

  /// Is killed and started again: its queue is lost, the requests are not.
  void restart() {
    announcements_.clear();
    send({"services/prop-service/online", "0"});
    send({"services/prop-service/online", "1"});
  }

  /// Serves the next request.
  void serve() {
    const Message request = requests.front();
    requests.pop_front();
    const std::string sender = request.topic.substr(0, request.topic.find('/'));
    send({"prop-service/" + sender, answer(json::parse(request.payload).value())});
  }

  /// Its worker sends the next announcement.
  void announce() {
    send(announcements_.front());
    announcements_.pop_front();
  }

  bool hasRequests() const { return !requests.empty(); }
  bool hasAnnouncements() const { return !announcements_.empty(); }
  bool hasSent() const { return !sent_.empty(); }

  /// Returns the next message at the client; nothing where that has not subscribed to it.
  std::optional<Message> arrive() {
    const Message message = sent_.front();
    sent_.pop_front();
    const bool isOfAnyGroup = message.topic.ends_with("/any") && subscriptions.contains("+/any");
    return isOfAnyGroup || subscriptions.contains(message.topic) ? std::optional(message) : std::nullopt;
  }

  /// Loses the messages under way, and those that are sent until it is back. Requests that arrived are
  /// served.
  void breakConnection() {
    connected_ = false;
    sent_.clear();
  }
  void restoreConnection() { connected_ = true; }

  std::map<std::string, std::string> values;
  std::set<std::string> subscriptions;
  std::deque<Message> requests;

 private:
  void send(const Message& message) {
    if (connected_) {
      sent_.push_back(message);
    }
  }

  std::string answer(const Json::Value& request) const {
    const std::string param = request["param"].asString();
    Json::Value reply;
    reply["param"] = param;
    if (param == "Are you alive?") {
      reply["param"] = "Ok";
    } else if (request["method"] == "getV") {
      const auto found = values.find(param);
      reply["status"] = found == values.end() ? "NotFound" : "Ok";
      if (found != values.end()) {
        reply["result"] = found->second;
      }
    } else {
      reply["status"] = Json::nullValue;
      const auto pattern = propertyservice::KeyPattern::compile(param);
      const bool isPattern = param.find('%') != std::string::npos;
      const bool withValues = request["fields"].asString().find("value") != std::string::npos;
      for (const auto& [key, value] : values) {
        if (!key.starts_with("State.") && (isPattern ? pattern && pattern->matches(key) : key == param)) {
          Json::Value property;
          property["key"] = key;
          if (withValues && !value.empty()) {
            property["value"] = value;
          }
          reply["result"].append(property);
          reply["status"] = "Ok";
        }
      }
    }
    return json::write(reply);
  }

  bool connected_ = true;
  std::deque<Message> announcements_;
  std::deque<Message> sent_;
};

}  // namespace propclient
