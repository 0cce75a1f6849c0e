#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace common {

/// The service manager's end of sd_notify(3): tells it when the service is ready, how it is, and that it is
/// alive. Without a service manager that listens, nothing is sent.
///
/// Safe from any thread, except `alive`, which belongs to one.
class ServiceManager {
 public:
  using Clock = std::chrono::steady_clock;

  /// The manager that has started this process, as it was before `main`.
  static ServiceManager& instance();

  /// Takes what the manager has put into the environment out of it, so that no child speaks in this process's
  /// name. Only while there is one thread.
  static std::unique_ptr<ServiceManager> fromEnvironment();

  /// Speaks to the datagram socket at `address`, an absolute path or "@" and an abstract name; empty: to
  /// nobody. `watchdog` is the silence after which the manager restarts the service.
  explicit ServiceManager(std::string address, std::optional<Clock::duration> watchdog = std::nullopt);

  void ready();
  void stopping();

  /// Sets the line that the manager shows: what the service does, and what is wrong with it (empty: nothing).
  void setStatus(const std::string& status);
  void setTrouble(const std::string& trouble);

  /// Feeds the watchdog, a few times in its interval however often it is called. Returns when to call it
  /// again at the latest; nothing: no watchdog. Does not block.
  std::optional<Clock::time_point> alive(Clock::time_point now = Clock::now());

 private:
  bool send(const std::string& message, int flags = 0) const;
  void sendStatus();

  const std::string address_;
  const std::optional<Clock::duration> betweenSigns_;
  Clock::time_point nextSign_;  ///< Used by the thread of `alive` alone.

  std::mutex mutex_;
  std::string status_;   // guarded by mutex_
  std::string trouble_;  // guarded by mutex_
};

}  // namespace common
