#include "core/StoreLock.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace propertyservice {

namespace {

/// Says of a folder which one it is, whatever its path.
std::pair<dev_t, ino_t> identityOf(const common::Descriptor& folder) {
  struct stat status {};
  fstat(folder.get(), &status);
  return {status.st_dev, status.st_ino};
}

common::Descriptor openFolder(const std::string& path) {
  common::Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() < 0) {
    throw std::system_error(errno, std::generic_category(), "Cannot open " + path);
  }
  return folder;
}

}  // namespace

StoreLock::StoreLock(const DevicePaths& paths) {
  for (const std::string& path : {paths.databaseFolder(), paths.volatileStoreFolder()}) {
    common::Descriptor folder = openFolder(path);
    const bool isHeld = std::ranges::any_of(
        folders_, [&](const auto& held) { return identityOf(held) == identityOf(folder); });
    if (isHeld) {
      continue;
    }
    if (flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
      throw std::runtime_error(errno == EWOULDBLOCK
                                   ? "Another process uses the stores: it holds the lock on " + path +
                                         " (lslocks shows which); stop it first"
                                   : "Cannot lock " + path + ": " + std::generic_category().message(errno));
    }
    folders_.push_back(std::move(folder));
  }
}

}  // namespace propertyservice
