#pragma once

#include <functional>
#include <vector>

#include <json/value.h>

#include "core/Property.h"
#include "core/Status.h"

namespace propertyservice {

/// Backups of the persistent properties under "/config/", and their restores. One caller at a time.
class IDatabaseBackup {
 public:
  /// Receives the properties of a restore with the status of each; may be empty.
  using RestoredCallback = std::function<void(std::vector<Property>&)>;

  virtual ~IDatabaseBackup() = default;

  /// Writes the user's backup; of all settings when the request's "allSettings" is the boolean true.
  virtual Status makeBackup(const Json::Value& request) = 0;

  /// Writes what is to survive a firmware version change, and a factory reset.
  virtual Status prepareVersionChange() = 0;
  virtual Status prepareFactoryReset() = 0;

  virtual Status makeSysdump() = 0;

  /// Restores the user's backup and removes its file; the file stays when that fails.
  virtual Status restore(const RestoredCallback& restored) = 0;

  /// Restores what was kept over a version change, and sets the volatile property that tells whether that
  /// succeeded.
  virtual void restoreVersionChange() = 0;
  virtual void restoreFactoryReset() = 0;

  virtual bool versionChangeBackupExists() = 0;
  virtual bool factoryResetBackupExists() = 0;
};

}  // namespace propertyservice
