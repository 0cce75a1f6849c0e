#pragma once

#include <memory>
#include <string>

#include "ipc/IIPCClient.h"

namespace ipc {

class IPCFactory {
 public:
  /// A client of the bus that calls itself `name` (its client identifier), with a suffix of its own behind it
  /// where `uniqueSuffix` is set. Nothing is sent before `connect`. The broker is looked for on `host`, port
  /// 1883. Where the device has a file "/etc/ipc/NAME.credentials" (user name and password, a line each, mode
  /// 0600), every `connect` proves itself with them; without it there is no authentication. From the first
  /// call on the process ignores SIGPIPE, unless it has a handler for it. Throws `IPCException`.
  static std::shared_ptr<IIPCClient> createInstanceShared(const std::string& name, const std::string& host,
                                                          bool uniqueSuffix);
};

}  // namespace ipc
