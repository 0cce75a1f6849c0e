#pragma once

#include <map>
#include <string>

#include "propclient/Client.h"

namespace propclient {

/// The devices that have ever been connected to a central broker, by serial number, and whether each is now.
/// Connects as `options` say, but for `device`; `name` must be the controller's that the broker knows. Throws
/// `ConnectionError` where there is no broker, or no whole list within the time-out. Blocks; any thread.
std::map<std::string, bool> knownDevices(const Options& options);

}  // namespace propclient
