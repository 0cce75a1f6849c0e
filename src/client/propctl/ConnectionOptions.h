#pragma once

#include <string>

#include "client/propclient/Client.h"

namespace propctl {

/// The options about the connection as they were given.
struct ConnectionOptions {
  std::string host = "localhost";
  unsigned port = 0;  ///< 0: not given; 1883, with TLS 8883.
  std::string user;
  std::string passwordFile;
  std::string name;
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;
  double timeout = 0;  ///< In seconds; 0: not given.
};

/// Returns the options as the library takes them. Without a time-out it is `defaultTimeout`. Throws
/// `Failure`.
propclient::Options toOptions(const ConnectionOptions& given, std::chrono::milliseconds defaultTimeout);

}  // namespace propctl
