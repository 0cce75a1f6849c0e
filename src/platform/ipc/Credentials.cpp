#include "ipc/Credentials.h"

#include <cerrno>
#include <fstream>
#include <sys/stat.h>

#include "ipc/IPCException.h"

namespace ipc {

std::optional<mqtt::Credentials> readCredentials(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 && errno == ENOENT) {
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode) || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw IPCException("credentials in " + path +
                       ": must be a file that nobody but its owner may read (mode 0600)");
  }

  mqtt::Credentials credentials;
  std::ifstream file(path);
  if (!std::getline(file, credentials.user) || credentials.user.empty()) {
    throw IPCException("credentials in " + path + ": no user name on the first line");
  }
  std::getline(file, credentials.password);
  return credentials;
}

}  // namespace ipc
