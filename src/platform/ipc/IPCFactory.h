#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ipc/IIPCClient.h"

namespace ipc {

class IPCFactory {
 public:
  /// Returns when it has to be called again at the latest; nothing: at any time.
  using SignOfLife = std::function<std::optional<std::chrono::steady_clock::time_point>()>;

  /// Returns a client of the bus that calls itself `name` (its client identifier), followed by a suffix of
  /// its own where `uniqueSuffix` is set. Nothing is sent before `connect`. The broker is looked for on
  /// `host`, port 1883. Where the device has a file "/etc/ipc/NAME.credentials" (user name and password, a
  /// line each, mode 0600), every `connect` presents them; without it there is no authentication.
  ///
  /// A client without a suffix announces whether it is there: retained on "services/NAME/online" are "1" once
  /// it is connected and subscribed, and "0" after `disconnect` or a loss.
  ///
  /// `sayAlive` is called on the callback thread whenever that comes by, and, while no callback holds it up,
  /// at the time that it has returned: a watchdog can be fed from it. It must not throw.
  ///
  /// From the first call on the process ignores SIGPIPE, unless it has a handler for it. Throws
  /// `IPCException`.
  static std::shared_ptr<IIPCClient> createInstanceShared(const std::string& name, const std::string& host,
                                                          bool uniqueSuffix, SignOfLife sayAlive = nullptr);
};

}  // namespace ipc
