#pragma once

#include <map>
#include <optional>
#include <string>

#include "propclient/Client.h"

namespace propclient {

/// The state of a device as the central broker knows it.
struct Presence {
  bool connected = false;
  std::optional<bool> service =
      {};  ///< Whether the daemon was there when the device last said; nothing: it never did.

  bool operator==(const Presence&) const = default;
};

/// The devices that have ever been connected to a central broker, by serial number.
/// Connects as `options` say, but for `device`; `name` must be the controller's that the broker knows. Throws
/// `ConnectionError` without a broker, or without a whole list within the time-out. Blocks; any thread.
std::map<std::string, Presence> knownDevices(const Options& options);

}  // namespace propclient
