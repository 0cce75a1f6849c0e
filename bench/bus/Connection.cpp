#include "bus/Connection.h"

#include <poll.h>
#include <stdexcept>

namespace propertyservice::bench {

namespace {

constexpr int kQos = 1;
constexpr int kKeepAliveSeconds = 60;

void check(int result, const char* operation) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string(operation) + ": " + mosquitto_strerror(result));
  }
}

}  // namespace

Connection::Connection(const std::string& id, const std::vector<std::string>& topics, OnMessage onMessage,
                       Session session)
    : onMessage_(std::move(onMessage)) {
  static const int initialised = mosquitto_lib_init();
  check(initialised, "initialise");
  library_.reset(mosquitto_new(id.c_str(), session == Session::ends, this));
  mosquitto_int_option(library_.get(), MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(library_.get(), MOSQ_OPT_SEND_MAXIMUM, 65535);
  mosquitto_connect_callback_set(library_.get(), [](mosquitto*, void* self, int refused) {
    static_cast<Connection*>(self)->connected_ = refused == 0;
  });
  mosquitto_subscribe_callback_set(library_.get(), [](mosquitto*, void* self, int, int, const int*) {
    ++static_cast<Connection*>(self)->subscriptions_;
  });
  mosquitto_message_callback_set(library_.get(),
                                 [](mosquitto*, void* self, const mosquitto_message* message) {
                                   static_cast<Connection*>(self)->receive(*message);
                                 });

  check(mosquitto_connect(library_.get(), "127.0.0.1", 1883, kKeepAliveSeconds), "connect");
  const auto answered = [this](const std::function<bool()>& done) {
    if (!serve({this}, Clock::now() + kPatience, done)) {
      throw std::runtime_error("the broker does not answer");
    }
  };
  answered([this] { return connected_; });
  for (const std::string& topic : topics) {
    check(mosquitto_subscribe(library_.get(), nullptr, topic.c_str(), kQos), "subscribe");
  }
  answered([&] { return subscriptions_ == topics.size(); });
}

Connection::~Connection() {
  mosquitto_disconnect(library_.get());
}

void Connection::publish(const std::string& topic, const std::string& payload) {
  check(mosquitto_publish(library_.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), kQos, false),
        "publish");
}

void Connection::turn(short events) {
  constexpr int kPackets = 1;  // the library takes its own number where it has more
  if ((events & ~POLLOUT) != 0) {
    check(mosquitto_loop_read(library_.get(), kPackets), "receive");
  }
  if (failure_) {
    std::rethrow_exception(failure_);
  }
  if (mosquitto_want_write(library_.get())) {
    check(mosquitto_loop_write(library_.get(), kPackets), "send");
  }
}

void Connection::receive(const mosquitto_message& message) {
  try {
    onMessage_(message);
  } catch (...) {
    failure_ = std::current_exception();
  }
}

bool serve(const std::vector<Connection*>& connections, Clock::time_point deadline,
           const std::function<bool()>& done) {
  constexpr int kTimeoutMs = 100;
  std::vector<pollfd> descriptors;
  while (!done()) {
    if (Clock::now() >= deadline) {
      return false;
    }
    descriptors.clear();
    for (Connection* connection : connections) {
      mosquitto* const library = connection->library_.get();
      const short awaited = mosquitto_want_write(library) ? POLLIN | POLLOUT : POLLIN;
      descriptors.push_back({mosquitto_socket(library), awaited, 0});
    }
    poll(descriptors.data(), descriptors.size(), kTimeoutMs);
    for (std::size_t i = 0; i < connections.size(); ++i) {
      if (descriptors[i].revents != 0) {
        connections[i]->turn(descriptors[i].revents);
      }
    }
  }
  return true;
}

std::string getRequest(const std::string& key) {
  return R"({"method":"getV","param":")" + key + "\"}";
}

std::string setRequest(const std::string& key, unsigned value) {
  return R"({"method":"setV","param":")" + key + R"(","value":")" + std::to_string(value) + "\"}";
}

}  // namespace propertyservice::bench
