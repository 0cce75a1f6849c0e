#include "fleet/CentralClient.h"

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <unistd.h>

#include <mosquitto.h>

#include "core/JsonText.h"
#include "fleet/Fleet.h"

namespace propertyservice::test {

namespace {

void check(int result, const char* what) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
  }
}

std::string replyTopic(const std::string& serial, const std::string& name) {
  return "devices/" + serial + "/prop-service/" + name;
}

}  // namespace

CentralClient::CentralClient(std::string name, int port, const Certificate& certificate,
                             const std::vector<std::string>& topics, const std::string& clientIdentifier)
    : name_(std::move(name)) {
  static const int initialised = mosquitto_lib_init();
  check(initialised, "initialise the client library");
  // Under TLS, libmosquitto raises it when it takes its leave of a centre that has gone.
  std::signal(SIGPIPE, SIG_IGN);
  client_.reset(mosquitto_new(clientIdentifier.empty() ? nullptr : clientIdentifier.c_str(), true, this));
  mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1);
  check(mosquitto_tls_set(client_.get(), certificate.authority.c_str(), nullptr,
                          certificate.certificate.empty() ? nullptr : certificate.certificate.c_str(),
                          certificate.key.empty() ? nullptr : certificate.key.c_str(), nullptr),
        "use the certificate");
  mosquitto_connect_callback_set(client_.get(), [](mosquitto*, void* self, int result) {
    auto& client = *static_cast<CentralClient*>(self);
    const std::lock_guard lock(client.mutex_);
    client.answer_ = result;
    client.changed_.notify_all();
  });
  mosquitto_disconnect_callback_set(client_.get(), [](mosquitto*, void* self, int reason) {
    auto& client = *static_cast<CentralClient*>(self);
    const std::lock_guard lock(client.mutex_);
    client.answer_ = std::max(client.answer_, 1) + reason;
    client.changed_.notify_all();
  });
  mosquitto_subscribe_callback_set(client_.get(), [](mosquitto*, void* self, int, int, const int*) {
    auto& client = *static_cast<CentralClient*>(self);
    const std::lock_guard lock(client.mutex_);
    --client.openSubscriptions_;
    client.changed_.notify_all();
  });
  mosquitto_publish_callback_set(client_.get(), [](mosquitto*, void* self, int id) {
    auto& client = *static_cast<CentralClient*>(self);
    const std::lock_guard lock(client.mutex_);
    client.lastAcknowledged_ = id;
    client.changed_.notify_all();
  });
  mosquitto_message_callback_set(client_.get(), [](mosquitto*, void* self, const mosquitto_message* message) {
    auto& client = *static_cast<CentralClient*>(self);
    const std::lock_guard lock(client.mutex_);
    client.messages_.push_back(
        {message->topic,
         {static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)},
         message->retain});
    client.changed_.notify_all();
  });

  check(mosquitto_connect(client_.get(), Centre::kAddress, port, 60), "connect");
  check(mosquitto_loop_start(client_.get()), "start the loop");
  if (!waitUntil([this] { return answer_ >= 0; }, kPatience) || answer_ != 0) {
    throw std::runtime_error("the centre refuses " + name_);
  }
  {
    const std::lock_guard lock(mutex_);
    openSubscriptions_ = static_cast<int>(topics.size());
  }
  for (const std::string& topic : topics) {
    check(mosquitto_subscribe(client_.get(), nullptr, topic.c_str(), 1), "subscribe");
  }
  if (!waitUntil([this] { return openSubscriptions_ == 0; }, kPatience)) {
    throw std::runtime_error("the centre does not answer");
  }
}

void CentralClient::Destroy::operator()(mosquitto* client) const {
  mosquitto_disconnect(client);
  mosquitto_loop_stop(client, true);
  mosquitto_destroy(client);
}

void CentralClient::publish(const std::string& topic, const std::string& payload, bool retained) {
  int id = 0;
  check(mosquitto_publish(client_.get(), &id, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                          1, retained),
        "publish");
  if (!waitUntil([&] { return lastAcknowledged_ == id; }, kPatience)) {
    throw std::runtime_error("the centre does not acknowledge");
  }
}

void CentralClient::ask(const std::string& serial, const Json::Value& request) {
  publish("devices/" + serial + "/" + name_ + "/prop-service", json::write(request));
}

Json::Value CentralClient::request(const std::string& serial, const Json::Value& request,
                                   std::chrono::milliseconds patience) {
  const std::size_t before = replies(serial).size();
  ask(serial, request);
  if (!eventually([&] { return replies(serial).size() > before; }, patience)) {
    return {};
  }
  return replies(serial).at(before);
}

std::vector<Json::Value> CentralClient::replies(const std::string& serial) {
  std::vector<Json::Value> values;
  for (const std::string& text : received(replyTopic(serial, name_))) {
    json::parse(text, values.emplace_back());
  }
  return values;
}

std::vector<CentralClient::Message> CentralClient::received() {
  const std::lock_guard lock(mutex_);
  return messages_;
}

std::vector<std::string> CentralClient::received(const std::string& topic) {
  std::vector<std::string> payloads;
  for (const Message& message : received()) {
    if (message.topic == topic) {
      payloads.push_back(message.payload);
    }
  }
  return payloads;
}

bool CentralClient::waitFor(const std::string& topic, const std::string& payload,
                            std::chrono::milliseconds patience) {
  return waitUntil(
      [&] {
        return std::any_of(messages_.begin(), messages_.end(), [&](const Message& message) {
          return message.topic == topic && message.payload == payload;
        });
      },
      patience);
}

void CentralClient::forget() {
  const std::lock_guard lock(mutex_);
  messages_.clear();
}

void CentralClient::settle() {
  const std::string topic = "devices/" + name_ + "/online";
  const std::string mark = "mark " + std::to_string(++settled_);
  publish(topic, mark);
  if (!waitFor(topic, mark)) {
    throw std::runtime_error("the centre does not send the mark back");
  }
}

bool CentralClient::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, condition);
}

}  // namespace propertyservice::test
