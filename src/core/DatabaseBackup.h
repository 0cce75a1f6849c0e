#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/DevicePaths.h"
#include "core/IDatabaseBackup.h"
#include "database/IDatabaseService.h"

namespace propertyservice {

/// Backups as text files, written by the sqlite3 shell and read back through the database service, so that
/// every value restored passes the validators.
///
/// An export answers "Ok" when its file holds every write that was accepted before it and outlives a power
/// cut; otherwise the file that it was to replace is still there. A restore answers "Ok" when the database
/// file holds every value, also after a power cut, and then alone removes its file. Neither waits for a
/// database file that cannot be written: both end with an error, at the latest after 15 s.
class DatabaseBackup final : public IDatabaseBackup {
 public:
  explicit DatabaseBackup(std::shared_ptr<IDatabaseService> database, DevicePaths paths = {});

  Status makeBackup(const Json::Value& request) override;
  Status prepareVersionChange() override;
  Status prepareFactoryReset() override;
  Status makeSysdump() override;
  Status restore(const RestoredCallback& restored) override;
  void restoreVersionChange() override;
  void restoreFactoryReset() override;
  bool versionChangeBackupExists() override;
  bool factoryResetBackupExists() override;

 private:
  Status exportSettings(std::uint8_t mask, const std::string& path, std::string_view columns);
  std::vector<Property> settingsWith(std::uint8_t mask);
  Status restoreFromFile(const std::string& path, const RestoredCallback& restored);

  std::string getDatabaseVersion();
  void waitForWriter();
  std::string backupPath(std::string_view name) const;

  const std::shared_ptr<IDatabaseService> database_;
  const DevicePaths paths_;
};

/// The shell command that writes `columns` of each row of `database` that has one of the flags in `mask` to
/// the file `path`.
std::string exportCommand(const std::string& database, std::string_view columns, std::uint8_t mask,
                          const std::string& path);

/// The shell command that appends the line with the database version to the file `path`.
std::string stampCommand(std::string_view version, const std::string& path);

}  // namespace propertyservice
