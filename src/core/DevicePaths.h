#pragma once

#include <filesystem>
#include <string>

#include "core/Constants.h"

namespace propertyservice {

/// Where things are on the device. Only tests give other places.
struct DevicePaths {
  std::string database{kDatabasePath};
  std::string databaseFolder() const { return std::filesystem::path(database).parent_path(); }
  std::string volatileStoreFolder() const { return std::filesystem::path(volatileStore).parent_path(); }

  /// An empty file beside the database for as long as that is being made.
  std::string unfinishedMark() const { return database + std::string(kUnfinishedSuffix); }

  std::string creationScript{kCreationScriptPath};
  std::string volatileStore{kVolatileStorePath};

  std::string model = "/etc/model";
  std::string version = "/etc/version";
  std::string macAddress = "/sys/class/net/eth0/address";
  std::string kernelCommandLine = "/proc/cmdline";

  std::string customizations = "/etc/nvm.conf.d/";
  std::string migrations = "/etc/propsrv.d/";
  std::string backups = "/config/";
};

}  // namespace propertyservice
