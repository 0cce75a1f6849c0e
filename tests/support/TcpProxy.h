#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

namespace propertyservice::test {

/// A TCP relay on loopback that can misbehave: stands between the daemon and its broker.
class TcpProxy {
 public:
  /// Listens on `port` at once and relays each connection to `target`.
  TcpProxy(std::uint16_t port, std::uint16_t target);
  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;
  ~TcpProxy();

  /// Accepts, but relays nothing in either direction, until told otherwise.
  void silence(bool silent) { silent_ = silent; }

  /// Relays so many bytes more towards the target, then cuts every connection.
  void cutAfter(std::size_t bytes) { budget_ = static_cast<std::ptrdiff_t>(bytes); }

  int accepted() const { return accepted_; }

 private:
  static constexpr std::ptrdiff_t kNoBudget = -1;

  struct Pair {
    int client;
    int target;

    void close() const;
  };

  void relay();
  bool forward(const Pair& pair, bool upwards);
  void takeConnection(std::vector<Pair>& pairs);

  const std::uint16_t target_;
  int listener_ = -1;
  std::atomic<bool> silent_ = false;
  std::atomic<std::ptrdiff_t> budget_ = kNoBudget;  ///< Bytes still to relay towards the target.
  std::atomic<int> accepted_ = 0;
  std::atomic<bool> stopping_ = false;
  std::thread thread_;
};

}  // namespace propertyservice::test
