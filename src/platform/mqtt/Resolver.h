#pragma once

#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace mqtt {

using Addresses = std::vector<std::string>;

/// Looks up the numeric addresses of a host on a thread of its own, since a name server may stay silent for
/// long. Destroyed before the result is available, it leaves that thread to end by itself.
class Lookup {
 public:
  /// Calls `done` on the look-up's thread, which inherits the caller's signal mask and may outlive everything
  /// but what `done` holds, when the result is available.
  Lookup(const std::string& host, std::function<void()> done);
  ~Lookup();
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  bool isDone() const;

  /// Waits for the result, which can be had once. Throws `Error` where there is none.
  Addresses take();

 private:
  std::future<Addresses> addresses_;
  std::thread thread_;
};

}  // namespace mqtt
