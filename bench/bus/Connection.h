#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <mosquitto.h>

namespace propertyservice::bench {

using Clock = std::chrono::steady_clock;

/// Longer than anything takes unless it hangs.
inline constexpr std::chrono::seconds kPatience(10);

/// A client of the broker on loopback port 1883, at QoS 1 in both directions. It has no thread of its own: it
/// sends and receives within `serve`. Every operation throws `std::runtime_error` when the broker does not
/// answer.
class Connection {
 public:
  using OnMessage = std::function<void(const mosquitto_message& message)>;

  enum class Session { ends, stays };

  /// Connects and subscribes; has both answered before it returns.
  Connection(const std::string& id, const std::vector<std::string>& topics, OnMessage onMessage,
             Session session = Session::ends);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  void publish(const std::string& topic, const std::string& payload);

 private:
  friend bool serve(const std::vector<Connection*>& connections, Clock::time_point deadline,
                    const std::function<bool()>& done);

  struct Destroy {
    void operator()(mosquitto* library) const { mosquitto_destroy(library); }
  };

  void turn(short events);
  void receive(const mosquitto_message& message);

  const OnMessage onMessage_;
  std::exception_ptr failure_;  ///< What a callback threw; it must not leave through the C library.
  bool connected_ = false;
  std::size_t subscriptions_ = 0;
  std::unique_ptr<mosquitto, Destroy> library_;
};

/// Lets the connections work until `done`, which is asked after each turn; false when that has not come by
/// `deadline`.
bool serve(const std::vector<Connection*>& connections, Clock::time_point deadline,
           const std::function<bool()>& done);

/// {"method":"getV","param":KEY}
std::string getRequest(const std::string& key);

/// {"method":"setV","param":KEY,"value":VALUE}
std::string setRequest(const std::string& key, unsigned value);

}  // namespace propertyservice::bench
