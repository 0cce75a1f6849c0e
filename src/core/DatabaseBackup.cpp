#include "core/DatabaseBackup.h"

#include <chrono>
#include <exception>
#include <stdexcept>
#include <thread>

#include "common/Execute.h"
#include "common/FileSystem.h"
#include "core/BackupFile.h"
#include "core/BackupPlace.h"
#include "core/Constants.h"
#include "core/Log.h"
#include "core/Migrations.h"
#include "core/ShellText.h"
#include "wire/Flags.h"

namespace propertyservice {

namespace {

constexpr std::string_view kUserBackup = "user_backup.csv";
constexpr std::string_view kVersionChangeBackup = "sys_backup.csv";
constexpr std::string_view kFactoryResetBackup = "reset_backup.csv";
constexpr std::string_view kSysdump = "sysdump.csv";

// A row is exported when its flags and the mask have a bit in common.
constexpr std::uint8_t kUserMask = flag::kUser;
constexpr std::uint8_t kAllSettingsMask = 238;
constexpr std::uint8_t kVersionChangeMask = 254;
constexpr std::uint8_t kFactoryResetMask = flag::kKept;
constexpr std::uint8_t kSysdumpMask = flag::kDump;

constexpr std::string_view kKeyAndValue = "key,value";
constexpr std::string_view kEveryColumn = "*";

constexpr unsigned kCommandTimeoutMs = 10'000;
constexpr std::chrono::seconds kWriterTimeout(15);

/// Ignores how the command ended, which the shell does not tell: looking at the file does.
void run(const std::string& command) {
  if (const os::ExecuteResult result = os::execute(command, kCommandTimeoutMs); !result.output.empty()) {
    logger().warning() << "Writing a backup: " << excerpt(result.output);
  }
}

/// Whether there is something to restore. A place in disorder counts: the restore reports it.
bool exists(const std::string& path) {
  try {
    const BackupPlace place(path);
  } catch (const std::exception&) {
    return true;
  }
  return filesystem::checkFileExists(path);
}

void warnOfLineBreaks(const std::vector<Property>& properties) {
  for (const Property& property : properties) {
    if (property.text(column::kValue).find('\n') != std::string::npos) {
      logger().warning() << "Value with a line break cannot be read back from a backup: "
                         << property.text(column::kKey);
    }
  }
}

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
  return exists(backupPath(kVersionChangeBackup));
}

bool DatabaseBackup::factoryResetBackupExists() {
  return exists(backupPath(kFactoryResetBackup));
}

Status DatabaseBackup::exportSettings(std::uint8_t mask, const std::string& path, std::string_view columns) {
  try {
    BackupPlace place(path);
    waitForWriter();
    const std::string version = getDatabaseVersion();
    const std::vector<Property> settings = settingsWith(mask);

    place.beginReplacing();
    run(exportCommand(paths_.database, columns, mask, path));
    if (!version.empty()) {
      run(stampCommand(version, path));
    }
    requireWhole(filesystem::read(path), settings, !version.empty());
    place.finishReplacing();
    warnOfLineBreaks(settings);
    return Status::Ok;
  } catch (const std::exception& error) {
    logger().warning() << error.what();
    logger().error() << "Database backup failed";
    return Status::DBError;
  }
}

std::vector<Property> DatabaseBackup::settingsWith(std::uint8_t mask) {
  const std::vector<std::string> columns = {std::string(column::kKey), std::string(column::kValue),
                                            std::string(column::kFlags)};
  std::vector<Property> settings = database_->getMultiple(std::string(kSqlWildcard), columns, "");
  std::erase_if(settings, [mask](const Property& setting) {
    return (setting.member(column::kFlags).asInt64() & mask) == 0;
  });
  return settings;
}

Status DatabaseBackup::restoreFromFile(const std::string& path, const RestoredCallback& restored) {
  try {
    BackupPlace place(path);
    BackupFile backup = parseBackupFile(path);
    Migrations(backup.version, getDatabaseVersion(), paths_.migrations).apply(backup.properties);
    database_->setMultiple(backup.properties);
    if (restored) {
      restored(backup.properties);
    }

    // Until the database file has them, the backup holds the only lasting copy of the values.
    waitForWriter();
    place.clear();
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

/// Without sleeping: a batch takes the worker a few milliseconds.
void DatabaseBackup::waitForWriter() {
  const auto deadline = std::chrono::steady_clock::now() + kWriterTimeout;
  while (!database_->isWriterIdle()) {
    if (database_->isWriterFailing() || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("The database file does not take the accepted writes");
    }
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
