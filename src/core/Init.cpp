#include "core/Init.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/Execute.h"
#include "common/FileSystem.h"
#include "common/ServiceManager.h"
#include "core/Customization.h"
#include "core/DatabaseBackup.h"
#include "core/Log.h"
#include "core/ReadOnlyParameters.h"
#include "database/DatabaseService.h"
#include "database/PersistentDatabase.h"
#include "database/PersistentDatabaseCache.h"
#include "database/VolatileStorage.h"
#include "validators/EnumValidator.h"
#include "validators/MinMaxValidator.h"
#include "validators/ReadOnlyValidator.h"
#include "validators/RegExpValidator.h"

namespace propertyservice {

namespace {

using Database = PersistentDatabase<std::unique_ptr<PersistentStorage>,
                                    std::unique_ptr<PersistentDatabaseCache>, std::unique_ptr<Validator>>;
using StateCache = VolatileStorage<leveldb::DB>;

constexpr unsigned kTimeoutMs = 10'000;

/// Ignores how the command ended: opening the result reveals a failure.
void run(const std::string& command) {
  os::execute(command, kTimeoutMs);
}

/// The first line in which the shell complains; the first line of all where none of them names an error.
std::string complaintIn(const std::string& output) {
  const std::size_t error = output.find("rror");
  const std::size_t begin = error == std::string::npos ? 0 : output.rfind('\n', error) + 1;
  return output.substr(begin, output.find('\n', begin) - begin);
}

/// Throws when the command did not come to its own end, so that part of its work is missing.
void requireItsOwnEnd(const os::ExecuteResult& result, const std::string& database) {
  // A shell reports a child that a signal ended as 128 and the number of the signal.
  constexpr int kEndedBySignal = 128;
  const std::string notFinished = "Making " + database + " was not finished";
  if (result.timedOut) {
    throw std::runtime_error(notFinished + " within " + std::to_string(kTimeoutMs / 1000) +
                             " s: make its script quicker, by one transaction around all statements");
  }
  if (result.status > kEndedBySignal) {
    throw std::runtime_error(notFinished + ": signal " + std::to_string(result.status - kEndedBySignal) +
                             " ended the shell; the next start makes it anew");
  }
}

/// Takes its journals away as well: they would be replayed into the database that comes next.
void removeDatabase(const std::string& path) {
  run("rm -f " + path);
  for (const char* const suffix : {"", "-journal", "-wal", "-shm"}) {
    filesystem::remove(path + suffix);
    if (filesystem::checkFileExists(path + suffix)) {
      throw std::runtime_error("Cannot remove " + path + suffix);
    }
  }
}

/// In the order in which they judge a write.
std::vector<std::unique_ptr<Validator>> createValidators() {
  std::vector<std::unique_ptr<Validator>> validators;
  validators.push_back(std::make_unique<ReadOnlyValidator>());
  validators.push_back(std::make_unique<RegExpValidator>());
  validators.push_back(std::make_unique<MinMaxValidator>());
  validators.push_back(std::make_unique<EnumValidator>());
  return validators;
}

/// A device without a single property must not come up as if it worked.
std::unique_ptr<PersistentDatabaseCache> createCache(PersistentStorage& storage, std::size_t& count) {
  auto cache = std::make_unique<PersistentDatabaseCache>();
  std::vector<Property> rows = storage.selectMultiple(std::string(kSqlWildcard));
  if (rows.empty()) {
    throw std::runtime_error("Cannot initialize cache");
  }
  count = rows.size();
  cache->load(std::move(rows));
  return cache;
}

void finishPendingRestore(IDatabaseBackup& backup) {
  auto& manager = common::ServiceManager::instance();
  if (backup.versionChangeBackupExists()) {
    manager.setStatus("Restoring the settings of the last version");
    backup.restoreVersionChange();
  } else if (backup.factoryResetBackupExists()) {
    manager.setStatus("Restoring what outlives a factory reset");
    backup.restoreFactoryReset();
  }
}

}  // namespace

InitContext::InitContext(DevicePaths paths) : paths_(std::move(paths)) {}

std::pair<std::shared_ptr<IDatabaseService>, std::unique_ptr<IDatabaseBackup>>
InitContext::initializeDatabases(bool forceDbInit, bool dropState) {
  if (dropState) {
    run("rm -rf " + paths_.volatileStore);
  }
  auto stateCache = std::make_unique<StateCache>(paths_.volatileStore);
  createPersistentStorage(forceDbInit);

  // Straight to the storage, before validators and cache exist.
  ReadOnlyParameters parameters(*storage_, paths_);
  parameters.initReadOnlyParameters();
  applyCustomization(*storage_, paths_);
  parameters.initDeviceNameInNetwork();

  auto validators = createValidators();
  auto cache = createCache(*storage_, propertyCount_);
  auto database = std::make_shared<Database>(std::move(storage_), std::move(cache), std::move(validators));
  service_ = std::make_shared<DatabaseService<std::shared_ptr<Database>>>(std::move(database),
                                                                          std::move(stateCache));
  auto backup = std::make_unique<DatabaseBackup>(service_, paths_);

  // A forced rebuild starts from the script's defaults alone.
  if (!forceDbInit) {
    finishPendingRestore(*backup);
  }
  return {service_, std::move(backup)};
}

/// Without the create flag: a file that the script failed to create must not be opened as an empty database.
void InitContext::createPersistentStorage(bool forceDbInit) {
  const bool unfinished = filesystem::checkFileExists(paths_.unfinishedMark());
  if (unfinished) {
    logger().warning() << "Database was not finished and is made anew: " << paths_.database;
  }
  const bool missing = !filesystem::checkFileExists(paths_.database);
  const bool make = forceDbInit || unfinished || missing;
  if (make) {
    createDatabase();
  }
  storage_ = std::make_unique<PersistentStorage>(openDatabase(paths_.database));
  if (make) {
    concludeCreation();
  }
}

/// 1. The mark reaches the disk. From here on every start begins at 2.
/// 2. What is left of a database goes.
/// 3. The shell makes the new one. Where it is killed, or this process is, the mark stays.
/// 4. The database reaches the disk, whatever its script has told the shell about that.
/// 5. `concludeCreation` removes the mark, before a client's first write could go with the database.
void InitContext::createDatabase() {
  common::ServiceManager::instance().setStatus("Making the database from " + paths_.creationScript);
  filesystem::create(paths_.unfinishedMark());
  filesystem::synchronize(paths_.databaseFolder());
  removeDatabase(paths_.database);

  const os::ExecuteResult result =
      os::execute("sqlite3 " + paths_.database + " < " + paths_.creationScript, kTimeoutMs);
  requireItsOwnEnd(result, paths_.database);
  if (result.status != 0) {
    logger().error() << "The shell ended with status " << result.status << " on " << paths_.creationScript
                     << ": " << excerpt(complaintIn(result.output));
  }
  if (filesystem::checkFileExists(paths_.database)) {
    filesystem::synchronize(paths_.database);
    filesystem::synchronize(paths_.databaseFolder());
  }
}

/// A table that came out empty ends the start-up later on. Its mark stays, so that the next start tries
/// again.
void InitContext::concludeCreation() {
  if (storage_->selectMultiple(std::string(kSqlWildcard)).empty()) {
    return;
  }
  if (!filesystem::remove(paths_.unfinishedMark())) {
    throw std::runtime_error("Cannot remove " + paths_.unfinishedMark());
  }
  filesystem::synchronize(paths_.databaseFolder());
}

}  // namespace propertyservice
