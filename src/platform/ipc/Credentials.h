#pragma once

#include <optional>
#include <string>

#include "mqtt/Connection.h"

namespace ipc {

/// Reads a credentials file: the user name on the first line, the password on the second. Returns
/// nothing without such a file: the client then connects without authentication. Throws `IPCException` when
/// the file is not a regular file of mode 0600 or less, cannot be read, or names no user.
std::optional<mqtt::Credentials> readCredentials(const std::string& path);

}  // namespace ipc
