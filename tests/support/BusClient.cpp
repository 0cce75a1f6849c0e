#include "support/BusClient.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <mosquitto.h>

#include "core/JsonText.h"

namespace propertyservice::test {

namespace {

void check(int result, const char* what) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
  }
}

}  // namespace

BusClient::BusClient(std::string name, const std::vector<std::string>& topics, int port,
                     const std::string& password)
    : name_(std::move(name)) {
  static const int initialised = mosquitto_lib_init();
  check(initialised, "initialise the client library");
  client_.reset(mosquitto_new((name_ + "-client").c_str(), true, this));
  if (!password.empty()) {
    mosquitto_username_pw_set(client_.get(), name_.c_str(), password.c_str());
  }
  mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(client_.get(), MOSQ_OPT_SEND_MAXIMUM, 65535);
  mosquitto_connect_callback_set(client_.get(), [](mosquitto*, void* self, int result) {
    auto& client = *static_cast<BusClient*>(self);
    const std::lock_guard lock(client.mutex_);
    client.answer_ = result;
    client.changed_.notify_all();
  });
  mosquitto_subscribe_callback_set(client_.get(), [](mosquitto*, void* self, int, int, const int*) {
    auto& client = *static_cast<BusClient*>(self);
    const std::lock_guard lock(client.mutex_);
    --client.openSubscriptions_;
    client.changed_.notify_all();
  });
  mosquitto_message_callback_set(client_.get(), [](mosquitto*, void* self, const mosquitto_message* message) {
    auto& client = *static_cast<BusClient*>(self);
    const std::lock_guard lock(client.mutex_);
    client.messages_.push_back(
        {message->topic,
         {static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)}});
    client.changed_.notify_all();
  });

  check(mosquitto_connect(client_.get(), "127.0.0.1", port, 60), "connect");
  check(mosquitto_loop_start(client_.get()), "start the loop");
  bool ready = waitUntil([this] { return answer_ >= 0; }, kPatience) && answer_ == 0;
  std::vector<std::string> all = topics;
  all.push_back(replyTopic());
  {
    const std::lock_guard lock(mutex_);
    openSubscriptions_ = static_cast<int>(all.size());
  }
  for (const std::string& topic : all) {
    check(mosquitto_subscribe(client_.get(), nullptr, topic.c_str(), 2), "subscribe");
  }
  ready = ready && waitUntil([this] { return openSubscriptions_ == 0; }, kPatience);
  if (!ready) {
    throw std::runtime_error("the broker does not answer");
  }
}

void BusClient::Destroy::operator()(mosquitto* client) const {
  mosquitto_disconnect(client);
  mosquitto_loop_stop(client, true);
  mosquitto_destroy(client);
}

void BusClient::publish(const std::string& topic, const std::string& payload, int qos, bool retained) {
  check(mosquitto_publish(client_.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), qos, retained),
        "publish");
}

void BusClient::sendRequest(const Json::Value& request) {
  send(json::write(request));
}

std::string BusClient::requestText(const std::string& payload, std::chrono::milliseconds patience) {
  const std::size_t before = received(replyTopic()).size();
  send(payload);
  return waitForMessages(replyTopic(), before + 1, patience) ? received(replyTopic()).at(before)
                                                             : std::string();
}

Json::Value BusClient::request(const Json::Value& request) {
  Json::Value reply;
  json::parse(requestText(json::write(request)), reply);
  return reply;
}

bool BusClient::serviceIsAlive(std::chrono::milliseconds patience) {
  // The reply to an earlier request may still be under way and come first.
  const auto answers = [this] {
    return std::count_if(messages_.begin(), messages_.end(), [this](const Message& message) {
      return message.topic == replyTopic() && message.payload == "{\"param\":\"Ok\"}\n";
    });
  };
  std::unique_lock lock(mutex_);
  const auto before = answers();
  lock.unlock();
  send(R"({"param":"Are you alive?"})");
  return waitUntil([&] { return answers() > before; }, patience);
}

std::vector<std::string> BusClient::received(const std::string& topic) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> payloads;
  for (const Message& message : messages_) {
    if (message.topic == topic) {
      payloads.push_back(message.payload);
    }
  }
  return payloads;
}

std::vector<BusClient::Message> BusClient::received() {
  const std::lock_guard lock(mutex_);
  return messages_;
}

bool BusClient::waitForMessages(const std::string& topic, std::size_t wanted,
                                std::chrono::milliseconds patience) {
  return waitUntil([&] { return count(topic) >= wanted; }, patience);
}

void BusClient::forget() {
  const std::lock_guard lock(mutex_);
  messages_.clear();
}

std::vector<BusClient::Message> BusClient::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(messages_, {});
}

void BusClient::settle() {
  if (!serviceIsAlive(kPatience)) {
    throw std::runtime_error("the service does not answer");
  }
}

bool BusClient::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, condition);
}

std::size_t BusClient::count(const std::string& topic) const {
  return static_cast<std::size_t>(std::count_if(
      messages_.begin(), messages_.end(), [&](const Message& message) { return message.topic == topic; }));
}

}  // namespace propertyservice::test
