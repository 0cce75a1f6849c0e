#pragma once

#include <string>

#include "mqtt/Connection.h"
#include "propclient/Client.h"

namespace propclient {

inline constexpr int kQosOfRequests = 2;

/// The connection that a client makes as `options` say, each time as a new one: no message of the connection
/// before is sent a second time.
inline mqtt::Settings settingsOf(const Options& options, const std::string& clientId) {
  mqtt::Settings settings{.clientId = clientId,
                          .host = options.host,
                          .port = options.port,
                          .firstRoundWithin = options.timeout,
                          .laterRoundWithin = options.timeout,
                          .shortestPause = std::chrono::milliseconds(100),
                          .longestPause = std::chrono::seconds(5)};
  if (!options.user.empty()) {
    settings.credentials = {options.user, options.password};
  }
  if (options.tls) {
    settings.tls = {options.tls->caFile, options.tls->certificateFile, options.tls->keyFile};
  }
  return settings;
}

}  // namespace propclient
