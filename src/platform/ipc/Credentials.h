#pragma once

#include <optional>
#include <string>

namespace ipc {

/// What a client proves to the broker who it is with.
struct Credentials {
  std::string user;
  std::string password;
};

/// Reads a credentials file: the user name on the first line, the password on the second. Nothing without
/// such a file: the client then connects without authentication. Throws `IPCException` when the file is not a
/// regular file of mode 0600 or less, cannot be read, or names no user.
std::optional<Credentials> readCredentials(const std::string& path);

}  // namespace ipc
