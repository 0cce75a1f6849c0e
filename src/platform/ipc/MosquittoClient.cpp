#include "ipc/MosquittoClient.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "dbg/Debug.h"
#include "ipc/Credentials.h"
#include "ipc/IPCException.h"
#include "mqtt/Text.h"

namespace ipc {

namespace {

using namespace std::chrono_literals;
using mqtt::shown;

constexpr auto kLastAcknowledgementsWithin = 2s;

dbg::Debug& logger() {
  // Never destroyed: a client may log until the very end.
  static auto* const log = new dbg::Debug("IPC");
  return *log;
}

void requireQos(int qos, const char* operation) {
  if (qos < 0 || qos > 2) {
    throw IPCException(std::string(operation) + ": no quality of service: " + std::to_string(qos));
  }
}

bool matchesAny(const std::vector<std::string>& topicFilters, const std::string& topic) {
  return std::any_of(topicFilters.begin(), topicFilters.end(),
                     [&topic](const std::string& filter) { return mqtt::matches(filter, topic); });
}

}  // namespace

MosquittoClient::MosquittoClient(Options options) : options_(std::move(options)) {
  if (!mqtt::isText(options_.id)) {
    throw IPCException("no client identifier: " + shown(options_.id));
  }
}

MosquittoClient::~MosquittoClient() {
  MosquittoClient::disconnect();
}

void MosquittoClient::connect(int cleanSession, int maxQos, const std::string& host) {
  requireQos(maxQos, "connect");
  const std::string& broker = host.empty() ? options_.host : host;
  std::shared_ptr<mqtt::Connection> connection;
  try {
    {
      const std::lock_guard lock(mutex_);
      if (connection_) {
        throw IPCException("connect: connected already");
      }
      connection = std::make_shared<mqtt::Connection>(
          mqtt::Settings{.clientId = options_.id,
                         .host = broker,
                         .credentials = readCredentials(options_.credentialsPath),
                         .cleanSession = cleanSession != 0,
                         .resends = true,
                         .subscriptionQos = maxQos,
                         .presenceTopic = options_.presenceTopic},
          static_cast<mqtt::Listener&>(*this));
      for (const Subscriber& subscriber : *subscribers_) {
        for (const std::string& topicFilter : subscriber.topicFilters) {
          connection->subscribe(topicFilter);
        }
      }
      broker_ = broker;
      wasOpen_ = false;
      connection_ = connection;
    }
    connection->connect();
  } catch (const mqtt::Error& error) {
    discard(connection);
    throw IPCException("connect to " + broker + ": " + error.what());
  }
}

void MosquittoClient::disconnect() {
  if (const auto current = connection()) {
    current->close(kLastAcknowledgementsWithin);
    discard(current);
  }
}

void MosquittoClient::publish(const std::string& topic, const std::string& payload, int qos) {
  requireQos(qos, "publish");
  const auto current = connection();
  if (!current) {
    throw IPCException("publish on " + shown(topic) + ": not connected");
  }
  try {
    current->publish(topic, payload, qos);
  } catch (const mqtt::Error& error) {
    throw IPCException(error.what());
  }
}

void MosquittoClient::subscribe(const std::string& topicFilter, IIPCCallback* callback) {
  if (!mqtt::isTopicFilter(topicFilter)) {
    throw IPCException("subscribe: no topic filter: " + shown(topicFilter));
  }

  const std::lock_guard lock(mutex_);
  auto subscribers = std::make_shared<Subscribers>(*subscribers_);
  auto subscriber = std::find_if(subscribers->begin(), subscribers->end(),
                                 [callback](const Subscriber& other) { return other.callback == callback; });
  if (subscriber == subscribers->end()) {
    subscriber = subscribers->insert(subscriber, {callback, {}});
  }
  subscriber->topicFilters.push_back(topicFilter);
  subscribers_ = std::move(subscribers);
  if (connection_) {
    connection_->subscribe(topicFilter);
  }
}

std::shared_ptr<mqtt::Connection> MosquittoClient::connection() {
  const std::lock_guard lock(mutex_);
  return connection_;
}

void MosquittoClient::discard(const std::shared_ptr<mqtt::Connection>& connection) {
  if (connection) {
    connection->close(0s);
  }
  const std::lock_guard lock(mutex_);
  if (connection_ == connection) {
    connection_.reset();
  }
}

void MosquittoClient::opened() {
  if (std::exchange(wasOpen_, true)) {
    logger().info() << "The connection to " << broker_ << " is back";
  }
  failure_.clear();
}

void MosquittoClient::failed(const std::string& reason) {
  if (wasOpen_ && std::exchange(failure_, reason) != reason) {
    logger().warning() << "No connection to " << broker_ << " yet: " << reason;
  }
}

void MosquittoClient::lost(const std::string& reason) {
  tell("connectionLost", {}, [&](const Subscriber& to) { to.callback->connectionLost(reason); });
}

void MosquittoClient::subscribed(const std::vector<std::string>& refused) {
  for (const std::string& topicFilter : refused) {
    logger().error() << "The broker refuses the subscription to " << shown(topicFilter);
  }
}

void MosquittoClient::received(const mqtt::Message& message) {
  if (message.retained) {
    logger().warning() << "Dropped a retained message on " << shown(message.topic)
                       << ": publish requests without the retain flag";
    return;
  }
  tell("messageArrived", message.topic, [&](const Subscriber& to) {
    if (matchesAny(to.topicFilters, message.topic)) {
      to.callback->messageArrived(message.topic, message.payload);
    }
  });
}

void MosquittoClient::delivered(const std::string& topic) {
  tell("deliveryComplete", topic, [&](const Subscriber& to) { to.callback->deliveryComplete(topic); });
}

mqtt::Deadline MosquittoClient::turned() {
  return options_.sayAlive ? options_.sayAlive() : std::nullopt;
}

/// Calls each callback. An exception of one is logged and reaches neither the others nor the connection.
template <typename Call>
void MosquittoClient::tell(const char* name, const std::string& topic, Call call) {
  const auto subscribers = [this] {
    const std::lock_guard lock(mutex_);
    return subscribers_;
  }();
  for (const Subscriber& subscriber : *subscribers) {
    const auto where = [&] { return topic.empty() ? std::string(name) : name + (" on " + shown(topic)); };
    try {
      call(subscriber);
    } catch (const std::exception& exception) {
      logger().error() << "Exception in " << where() << ": " << exception.what();
    } catch (...) {
      logger().error() << "Exception in " << where();
    }
  }
}

}  // namespace ipc
