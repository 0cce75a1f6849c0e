#include "core/Messenger.h"

#include <exception>

#include "common/JSONDefinitions.h"
#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "wire/Names.h"

namespace propertyservice {

using namespace common::JSONDefinitions;

namespace {

constexpr std::uint32_t kWorkerTimeoutMs = 1000;

}  // namespace

Messenger::Messenger(std::shared_ptr<ipc::IIPCClient> client)
    : client_(std::move(client)),
      queue_(std::make_unique<common::ActiveQueue<Message>>(
          [this](const Message& message) { publish(message); }, true, kWorkerTimeoutMs)) {}

std::pair<std::string, Json::Value> Messenger::notify(Property& property, bool alsoAll) {
  if (property.status() != Status::Changed) {
    return {};
  }
  property.setStatus(Status::Ok);

  const Json::Value& value = property.member(column::kValue);
  std::string key = property.text(column::kKey);
  if (const auto group = groupOf(key)) {
    publishGroup(*group, json::ObjectText()
                             .add(PROPERTY_PARAM, property.member(column::kKey))
                             .add(PROPERTY_VALUE, value)
                             .finish());
  } else {
    logger().error() << "Wrong key: " << excerpt(key);
  }

  if (alsoAll) {
    publishAll(json::ObjectText().add(key, value).finish());
  }
  return {std::move(key), value};
}

void Messenger::notifyList(std::vector<Property>& properties) {
  Json::Value changes;
  for (Property& property : properties) {
    auto [key, value] = notify(property, false);
    if (!key.empty()) {
      changes[key] = std::move(value);
    }
  }
  if (!changes.empty()) {
    publishAll(json::write(changes));
  }
}

void Messenger::publishGroup(const std::string& group, std::string payload) {
  announce({topic::changes(group), std::move(payload)});
}

void Messenger::publishAll(std::string payload) {
  static const std::string kTopic = topic::changes(topic::kAllGroups);
  announce({kTopic, std::move(payload)});
}

void Messenger::stop() {
  const std::scoped_lock lock(stopping_);
  queue_->stop();
}

void Messenger::announce(Message message) {
  if (!queue_->tryPush(message)) {
    const std::scoped_lock lock(stopping_);  // what was announced before goes first
    publish(message);
  }
}

void Messenger::publish(const Message& message) const {
  constexpr int kQos = 1;
  const auto& [topic, payload] = message;
  try {
    client_->publish(topic, payload, kQos);
  } catch (const std::exception& error) {
    logger().error() << "Cannot publish on topic " << excerpt(topic) << ": " << error.what();
  }
}

}  // namespace propertyservice
