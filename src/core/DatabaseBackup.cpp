#include "core/DatabaseBackup.h"

#include <exception>
#include <thread>

#include "common/Execute.h"
#include "common/FileSystem.h"
#include "core/BackupFile.h"
#include "core/Constants.h"
#include "core/Log.h"
#include "core/Migrations.h"
#include "core/ShellText.h"

namespace propertyservice {

namespace {

constexpr std::string_view kUserBackup = "user_backup.csv";
constexpr std::string_view kVersionChangeBackup = "sys_backup.csv";
constexpr std::string_view kFactoryResetBackup = "reset_backup.csv";
constexpr std::string_view kSysdump = "sysdump.csv";

// A row is exported when its flags and the mask have a bit in common.
constexpr std::uint8_t kUserMask = 8;
constexpr std::uint8_t kAllSettingsMask = 238;
constexpr std::uint8_t kVersionChangeMask = 254;
constexpr std::uint8_t kFactoryResetMask = 16;
constexpr std::uint8_t kSysdumpMask = 4;

constexpr std::string_view kKeyAndValue = "key,value";
constexpr std::string_view kEveryColumn = "*";

constexpr unsigned kCommandTimeoutMs = 10'000;

}  // namespace

DatabaseBackup::DatabaseBackup(std::shared_ptr<IDatabaseService> database, DevicePaths paths)
    : database_(std::move(database)), paths_(std::move(paths)) {}

Status DatabaseBackup::makeBackup(const Json::Value& request) {
  const bool allSettings = request[method::kAllSettings] == Json::Value(true);
  return exportSettings(allSettings ? kAllSettingsMask : kUserMask, backupPath(kUserBackup), kKeyAndValue);
}

Status DatabaseBackup::prepareVersionChange() {
  return exportSettings(kVersionChangeMask, backupPath(kVersionChangeBackup), kKeyAndValue);
}

Status DatabaseBackup::prepareFactoryReset() {
  return exportSettings(kFactoryResetMask, backupPath(kFactoryResetBackup), kKeyAndValue);
}

Status DatabaseBackup::makeSysdump() {
  return exportSettings(kSysdumpMask, backupPath(kSysdump), kEveryColumn);
}

Status DatabaseBackup::restore(const RestoredCallback& restored) {
  return restoreFromFile(backupPath(kUserBackup), restored);
}

void DatabaseBackup::restoreVersionChange() {
  const Status status = restoreFromFile(backupPath(kVersionChangeBackup), {});
  Property recovery({{column::kKey, "State.System.General.FirmwareUpdateParametersRecovery"},
                     {column::kValue, status == Status::Ok ? "yes" : "no"}});
  database_->set(recovery);
}

void DatabaseBackup::restoreFactoryReset() {
  restoreFromFile(backupPath(kFactoryResetBackup), {});
}

bool DatabaseBackup::versionChangeBackupExists() {
  return filesystem::checkFileExists(backupPath(kVersionChangeBackup));
}

bool DatabaseBackup::factoryResetBackupExists() {
  return filesystem::checkFileExists(backupPath(kFactoryResetBackup));
}

Status DatabaseBackup::exportSettings(std::uint8_t mask, const std::string& path, std::string_view columns) {
  try {
    waitForWriter();
    os::execute(exportCommand(paths_.database, columns, mask, path), kCommandTimeoutMs);
    appendDatabaseVersion(path);
    return Status::Ok;
  } catch (const std::exception& error) {
    logger().warning() << error.what();
    logger().error() << "Database backup failed";
    return Status::DBError;
  }
}

void DatabaseBackup::appendDatabaseVersion(const std::string& path) {
  const std::string version = getDatabaseVersion();
  if (!version.empty()) {
    os::execute(stampCommand(version, path), kCommandTimeoutMs);
  }
}

Status DatabaseBackup::restoreFromFile(const std::string& path, const RestoredCallback& restored) {
  try {
    BackupFile backup = parseBackupFile(path);
    Migrations(backup.version, getDatabaseVersion(), paths_.migrations).apply(backup.properties);
    database_->setMultiple(backup.properties);
    if (restored) {
      restored(backup.properties);
    }

    // Until the database file has them, the backup holds the only lasting copy of the values.
    waitForWriter();
    if (!filesystem::remove(path)) {
      logger().warning() << "Cannot remove " << path;
    }
    return Status::Ok;
  } catch (const std::exception& error) {
    logger().warning() << error.what();
    logger().error() << "Restore settings failed";
    return Status::DBError;
  }
}

std::string DatabaseBackup::getDatabaseVersion() {
  Property version({{column::kKey, "NVM.Version"}, {column::kValue, ""}});
  database_->get(version);
  return version.text(column::kValue);
}

/// Without sleeping: a batch takes the worker a few milliseconds. The service sees to it that the wait ends.
void DatabaseBackup::waitForWriter() {
  while (!database_->isWriterIdle()) {
    std::this_thread::yield();
  }
}

std::string DatabaseBackup::backupPath(std::string_view name) const {
  return paths_.backups + std::string(name);
}

std::string exportCommand(const std::string& database, std::string_view columns, std::uint8_t mask,
                          const std::string& path) {
  std::string command = "sqlite3 -separator ';' " + database + " -cmd \"SELECT ";
  command += columns;
  command += " FROM settings WHERE CAST(flags AS INT)&" + std::to_string(mask) + ";\" \"\" > " + path;
  return command;
}

std::string stampCommand(std::string_view version, const std::string& path) {
  return "echo \"" + std::string(kVersionMarker) + escapeForEcho(version) + "\" >> " + path;
}

}  // namespace propertyservice
